# shellcheck shell=bash
# Runs the project's Python programs, which all find the package "harness".

# run_python PROGRAM [ARGUMENT...]: from any folder; PROGRAM is named from the project's root.
# Debian's interpreter, because the modules that the programs need are Debian's packages.
run_python() {
    local root
    root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
    PYTHONPATH=$root/tests PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 "$root/$1" "${@:2}"
}
