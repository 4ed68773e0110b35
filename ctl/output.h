// Text on its way to a terminal or a script.
#pragma once

#include <cjson/cJSON.h>
#include <string>

// Names come from files and from the cloud: a control byte in one of them must not reach a terminal.
std::string shown(const char *text);
// The string of a member; "" when it has none.
std::string memberText(const cJSON *object, const char *name);
int memberNumber(const cJSON *object, const char *name, int otherwise);
// One line of JSON on standard output.
void printJson(const cJSON *document);
