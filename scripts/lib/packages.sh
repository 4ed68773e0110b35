# shellcheck shell=bash disable=SC2034 # for the scripts that source this
# Debian packages, by use. docs/dependencies.md gives the reason for each.

# To configure and build the daemon, the development gateway and the back end.
PACKAGES_BUILD=(
    g++ cmake ninja-build pkgconf
    libssl-dev libdbus-1-dev libcjson-dev libcrypt-dev libsdbus-c++-dev libmosquitto-dev
    libboost-dev nlohmann-json3-dev libcli11-dev libsqlite3-dev
)

# To build and to package the operators' tool alone, as in a root of another suite.
PACKAGES_OPERATOR=(
    g++ cmake ninja-build libssl-dev libboost-dev nlohmann-json3-dev libcli11-dev
    dpkg-dev binutils file gzip python3
)

# To run a gateway in a sandbox and to reach it.
PACKAGES_RUN=(
    bubblewrap dbus-daemon systemd openssl
    openssh-server openssh-client curl python3
    mosquitto mosquitto-clients
)

# To build and run the tests, besides the two lists above.
PACKAGES_TEST=(
    libgtest-dev libgmock-dev
    python3-pytest python3-jsonschema python3-websockets python3-dbus python3-gi dbus-bin iproute2
    nftables rsync tinyproxy-bin
)

# To build and run the benchmark, besides those to build and to run.
PACKAGES_BENCH=(
    libbenchmark-dev stunnel4 haproxy iproute2 strace linux-perf
)

# To measure the channel's cryptography alone, as on a small board.
PACKAGES_CRYPTO=(
    g++ libssl-dev
)

# To check the code statically, besides those to build, to test and to measure.
PACKAGES_LINT=(
    clang-tidy clang-format cppcheck shellcheck pyflakes3
)

# To check the model.
PACKAGES_MODEL=(
    spin gcc libc6-dev
)

# To run the fuzz targets, besides those to build.
PACKAGES_FUZZ=(
    clang libclang-rt-dev llvm python3
)

# To make and check Debian packages, besides those to build.
PACKAGES_PACKAGE=(
    dpkg-dev binutils file gzip git python3 lintian
)

# To install and boot the packages in a root of their own, besides those to make them.
PACKAGES_ROOT=(
    debootstrap systemd-container
)

# To run the tests with a browser, besides those to build, to run and to test.
PACKAGES_BROWSER=(
    chromium
)

# To run the matrix of faults, besides those to build and to run.
PACKAGES_FAULTS=(
    iproute2 nftables dnsmasq-base libfaketime
)

# To build for another architecture, besides those to build and its compiler.
PACKAGES_CROSS=(
    qemu-user-static dpkg-dev binutils
)

# Of that architecture, to link with and to run with: unpacked apart from the host's packages.
PACKAGES_SYSROOT=(
    libc6-dev libssl-dev libdbus-1-dev libcjson-dev libcrypt-dev libsdbus-c++-dev libmosquitto-dev
    libboost-dev nlohmann-json3-dev libcli11-dev libgtest-dev libgmock-dev
)
