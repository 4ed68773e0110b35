// The product's edition and version, from two small files below the installation root. Read once,
// at start-up.
#pragma once

struct REMOTE_ACCESS_CONFIG_T;

// Sets edition from the second word of SPECIFICATION. 0 when two words were read, whatever they
// are; -1 otherwise, with edition EDITION_UNKNOWN.
int getBrimLockEdition(REMOTE_ACCESS_CONFIG_T *record);

// Fills version with the first 36 bytes of VERSION, raw; leaves it empty when the file does not
// open.
void getBrimLockVersion(REMOTE_ACCESS_CONFIG_T *record);
