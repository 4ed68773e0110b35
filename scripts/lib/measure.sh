# shellcheck shell=bash
# For the scripts that measure: goes to the repository, installs missing packages, and builds unless
# RA_BUILD_DIR names a build.
cd "$(dirname "${BASH_SOURCE[0]}")/../.." || exit
# shellcheck source=scripts/lib/install.sh
. scripts/lib/install.sh
# shellcheck source=scripts/lib/packages.sh
. scripts/lib/packages.sh
# shellcheck source=scripts/lib/python.sh
. scripts/lib/python.sh
install_packages "${PACKAGES_BUILD[@]}" "${PACKAGES_RUN[@]}" "${PACKAGES_TEST[@]}"
if [ -z "${RA_BUILD_DIR:-}" ]; then
    cmake --preset release >/dev/null
    cmake --build --preset release --target remote_access_daemon remote_access_backend \
        gateway_config_manager gateway_watchdog -- --quiet
fi
