// What comes to a keeper as an opening: from whoever reaches its port before the back end's word.
// Under test: keep/opening.cpp keep/crc32c.cpp
#include "keep/byte_order.h"
#include "keep/crc32c.h"
#include "keep/opening.h"
#include "tests/fuzz/fuzz.h"

#include <vector>

using namespace keep;

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::vector<std::uint8_t> bytes(data, data + size);
    const std::size_t whole = openingSize(bytes);
    REQUIRE(whole <= OPENING_MAX);
    if (whole == 0 || whole > size) return 0;
    bytes.resize(whole);
    // Otherwise hardly an input gets behind the check.
    writeNumber(bytes.data() + whole - 4, crc32c(std::span(bytes).first(whole - 4)));
    OPENING_T opening;
    if (parseOpening(bytes, opening) != OPENING_FAULT::NONE) return 0;
    const std::vector<std::uint8_t> again = buildOpening(opening);
    REQUIRE(again.size() <= whole); // texts that are too long for one of ours are cut
    OPENING_T parsed;
    REQUIRE(parseOpening(again, parsed) == OPENING_FAULT::NONE);
    REQUIRE(parsed.key == opening.key && parsed.kind == opening.kind);
    REQUIRE(parsed.who == opening.who && parsed.longest_s == opening.longest_s);
    REQUIRE(again.size() < whole || again == bytes);
    SessionKey key{};
    REQUIRE(parseKey(keyText(opening.key), key) && key == opening.key);
    return 0;
}
