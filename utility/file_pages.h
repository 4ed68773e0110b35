// The pages of the program's and its libraries' files that the process has resident.
#pragma once

// Gives up code and constants of the program and its libraries. A page that is needed again comes
// back by itself, as a rule from the system's cache. Left alone are locked memory and every part
// with a page that is not as in its file, as by a relocation or a debugger's breakpoint (one that
// is set meanwhile is lost). For any thread; takes less than a millisecond, and does nothing where
// /proc/self/pagemap cannot be read.
void release_file_pages() noexcept;
