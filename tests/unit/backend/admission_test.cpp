#include "backend/net/admission.h"

#include <string>
#include <thread>

#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

using namespace backend;
using namespace std::chrono_literals;
namespace asio = boost::asio;

struct ADMISSION_T {
    asio::io_context io{1};
    LIMITS_T limits;
    std::shared_ptr<Admission> admission = std::make_shared<Admission>(io, limits, nullptr);
    std::string seen; // who was expelled, or whose step ran

    PlacePtr enter(const char *address, char name)
    {
        auto place =
            std::make_unique<Place>(admission, addressKey(asio::ip::make_address(address)));
        place->whenExpelled([this, name](const char *) { seen += name; });
        return place;
    }
};

// Who leaves, with b the only one that sent something.
static std::string leaving(std::size_t places)
{
    ADMISSION_T front;
    front.limits.places = places;
    const PlacePtr a = front.enter("10.0.0.1", 'a');
    const PlacePtr b = front.enter("2001:db8:0:1::1", 'b');
    const PlacePtr c = front.enter("2001:db8:0:1:ffff::2", 'c'); // the same /64
    const PlacePtr d = front.enter("::ffff:10.0.0.2", 'd');
    EXPECT_FALSE(front.admission->makeRoom()) << "none has been silent for a while";
    std::this_thread::sleep_for(350ms);
    EXPECT_TRUE(b->noteProgress(PLACE_BYTES_MAX));
    while (front.admission->makeRoom()) {
    }
    EXPECT_EQ(front.admission->size(), 1U);
    EXPECT_FALSE(b->noteProgress(1)) << "more than a handshake takes";
    return front.seen;
}

TEST(Admission, LongestSilentMakesRoomUnlessAnAddressHasMoreThanItsShare)
{
    EXPECT_EQ(leaving(4096), "acd");
    EXPECT_EQ(leaving(4), "cad");
}

TEST(Admission, TurnsGoRoundTheAddressesAndLeaveOthersATurn)
{
    ADMISSION_T front;
    PlacePtr places[] = {front.enter("10.0.0.1", 'A'), front.enter("10.0.0.1", 'B'),
                         front.enter("10.0.0.1", 'C'), front.enter("10.0.0.1", 'D'),
                         front.enter("10.0.0.2", 'E')};
    for (std::size_t i = 0; i < std::size(places); i++) {
        const auto step = [&front, i] {
            front.seen += std::to_string(i);
            std::this_thread::sleep_for(2 * TURN_SLICE);
        };
        places[i]->waitForTurn(step, i != 2); // the third one was answered before
    }
    for (int i = 0; i < 2; i++)
        asio::post(front.io, [&front] { front.seen += '.'; });
    places[1].reset();
    front.admission->makeRoom(); // none is silent
    front.io.run();
    EXPECT_EQ(front.seen, "2..403");
}
