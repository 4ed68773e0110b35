# shellcheck shell=bash
# The files of the tree by language, for scripts/lint and scripts/format: names, each ended with a
# NUL. To be called in the project's root.

# files_named PATTERN...
files_named() {
    local names=()
    for pattern in "$@"; do names+=(-o -name "$pattern"); done
    find . -name build -prune -o -name .git -prune -o -type f \( "${names[@]:1}" \) -print0 |
        sort -z
}

# interpreted NAME: executable scripts by the interpreter in their first line.
# shellcheck disable=SC2016 # expanded by awk
interpreted() {
    find scripts bench packaging .ci -type f ! -name '*.*' -print0 |
        xargs -0 awk -v name="$1" '
            FNR == 1 && /^#!/ && index($0, name) { printf "%s%c", FILENAME, 0 }
            { nextfile }'
}

# can_judge_layout: each version of clang-format lays some code out in another way. Debian 12's is
# the one that decides.
can_judge_layout() { clang-format --version | grep -q ' version 14\.'; }

cpp_files() { files_named '*.cpp' '*.h'; }
shell_files() { interpreted sh && files_named '*.sh'; }
python_files() { interpreted python && files_named '*.py'; }
cmake_files() { files_named '*.cmake' CMakeLists.txt; }
