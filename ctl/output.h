// Text on its way to a terminal or a script.
#pragma once

#include "utility/terminal_text.h"

#include <cjson/cJSON.h>
#include <string>

// The string of a member; "" when it has none.
std::string memberText(const cJSON *object, const char *name);
int memberNumber(const cJSON *object, const char *name, int otherwise);
// One line of JSON on standard output.
void printJson(const cJSON *document);
