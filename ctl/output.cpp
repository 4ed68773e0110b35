#include "ctl/output.h"

#include "utility/handles.h"

#include <cstdio>

std::string shown(const char *text)
{
    std::string result{text != nullptr ? text : ""};
    unsigned char before = 0;
    for (char &c : result) {
        const auto byte = static_cast<unsigned char>(c);
        const bool is_c1 = before == 0xc2 && byte >= 0x80 && byte < 0xa0; // U+0080 to U+009F
        if (byte < 0x20 || byte == 0x7f || is_c1) c = '?';
        before = byte;
    }
    return result;
}

std::string memberText(const cJSON *object, const char *name)
{
    return shown(cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name)));
}

int memberNumber(const cJSON *object, const char *name, int otherwise)
{
    const cJSON *const item = cJSON_GetObjectItemCaseSensitive(object, name);
    return cJSON_IsNumber(item) != 0 ? item->valueint : otherwise;
}

void printJson(const cJSON *document)
{
    const std::unique_ptr<char, Releaser<cJSON_free>> text{cJSON_PrintUnformatted(document)};
    std::puts(text ? text.get() : "{}");
}
