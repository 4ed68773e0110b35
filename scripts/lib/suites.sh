# shellcheck shell=bash
# The Debians that packages are made for.

# Each with what is built for it (all, or the operators' package alone) and the mark behind the
# version. The marks rise from suite to suite, so that a machine that goes from one to the next
# takes the package of the next: ~ sorts before nothing, + after it.
readonly SUITES='bullseye operator ~deb11
bookworm all
trixie all +deb13'

# suite_of_host: this machine's own, as bookworm.
suite_of_host() { (. /etc/os-release && printf '%s\n' "${VERSION_CODENAME-}"); }

# packages_for SUITE: all or operator; nothing for one that is not listed.
packages_for() { awk -v suite="$1" '$1 == suite { print $2 }' <<<"$SUITES"; }

# mark_of SUITE: nothing for one that is not listed.
mark_of() { awk -v suite="$1" '$1 == suite { print $3 }' <<<"$SUITES"; }

# suites_with KIND...: the names, the oldest first.
suites_with() { awk -v kinds=" $* " 'index(kinds, " " $2 " ") { print $1 }' <<<"$SUITES"; }
