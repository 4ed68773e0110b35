# shellcheck shell=bash
# Reads packaging/architectures.

# known_architectures: all of them, in one line.
known_architectures() { sed '/^#/d; s/ .*//' packaging/architectures | paste -sd ' '; }

# require_architectures NAME...: ends the script unless each is known.
require_architectures() {
    local name
    for name in "$@"; do
        [[ $name != *[!a-z0-9]* ]] && grep -q "^$name " packaging/architectures && continue
        printf '%s: unknown architecture %s; known: %s\n' "$0" "$name" "$(known_architectures)" >&2
        exit 2
    done
}

# triplet_of NAME, emulator_program_of NAME: of a known architecture.
triplet_of() { awk -v name="$1" '$1 == name { print $2 }' packaging/architectures; }
emulator_program_of() { awk -v name="$1" '$1 == name { print $3 }' packaging/architectures; }
