// Runs each piece of code of docs/cpp.md, with the bus and the nodes that the guide speaks of.
// Built twice: with the pieces that need other libraries, and with the rest.
#include "support.h"

#include <array>
#include <iostream>

#if defined(GUIDE_LIBRARIES)
#include <zelvo/json.hpp>

#include <asio.hpp>
#include <glib.h>
#include <poll.h>
#endif

namespace {

using Piece = void (*)(zelvo::Bus &, zelvo::Node &, zelvo::Node &);

#pragma GCC diagnostic ignored "-Wunused-parameter"
#pragma GCC diagnostic ignored "-Wshadow"
#include "guide_pieces.inc"

} // namespace

TEST(Guide, every_piece_runs) {
    ASSERT_GT(std::size(kPieces), 2U);
    for (const Piece piece : kPieces) {
        zelvo::Config config = quiet();
        config.stats = true;
        zelvo::Bus bus{config};
        zelvo::Node lamp{bus, "lamp"};
        zelvo::Node panel{bus, "panel"};
        lamp.on_call("/state", [](std::string_view) { return "on"; });
        EXPECT_NO_THROW(piece(bus, lamp, panel));
        EXPECT_EQ(panel.call("/lamp/state").text, "on");
    }
}
