# shellcheck shell=bash
# The version's one place is project() in CMakeLists.txt: programs, packages and the bill of
# materials take it from there. Both changelogs name it, as they name the ones before it.

project_version() { sed -nE 's/^project\(.* VERSION ([0-9.]+) .*/\1/p' CMakeLists.txt; }

# same_version NAME TEXT VERSION
same_version() {
    [ "$2" = "$3" ] || { printf '%s has version %s, CMakeLists.txt %s\n' "$1" "$2" "$3"; return 1; }
}

# check_version: whether the newest entries of the changelogs are of this version, and no other file
# repeats it.
check_version() {
    local version status=0
    version=$(project_version)
    [ -n "$version" ] || { printf 'CMakeLists.txt: no version in project()\n'; return 1; }
    same_version packaging/debian/changelog \
        "$(sed -nE '1s/.*\(([0-9.]+)\).*/\1/p' packaging/debian/changelog)" "$version" || status=1
    same_version CHANGELOG.md \
        "$(sed -nE '/^## /{s/## ([0-9.]+).*/\1/p; q}' CHANGELOG.md)" "$version" || status=1
    ! grep -rnE "(^|[^0-9.])${version//./[.]}([^0-9.]|\$)" . --binary-files=without-match \
        --exclude-dir={.git,build,node_modules} --exclude={changelog,CHANGELOG.md} |
        grep -v '^./CMakeLists.txt:.*project(' || status=1
    return "$status"
}
