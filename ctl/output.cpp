#include "ctl/output.h"

#include "utility/json_handles.h"

#include <cstdio>

std::string memberText(const cJSON *object, const char *name)
{
    const char *const text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
    return shown(text != nullptr ? text : "");
}

int memberNumber(const cJSON *object, const char *name, int otherwise)
{
    const cJSON *const item = cJSON_GetObjectItemCaseSensitive(object, name);
    return cJSON_IsNumber(item) != 0 ? item->valueint : otherwise;
}

void printJson(const cJSON *document)
{
    const JsonText text{cJSON_PrintUnformatted(document)};
    std::puts(text ? text.get() : "{}");
}
