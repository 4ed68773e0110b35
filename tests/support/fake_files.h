// The files of a test program that have fixed paths: those under /brimlock, the route table, and
// the product's SPECIFICATION and VERSION. They can be read, not written. Takes the places of
// fopen, open and access for them; every other path is what it is.
#pragma once

#include <map>
#include <string>

extern std::map<std::string, std::string> g_fake_files; // content by the last part of the path
