// The owners of what must be given back: run-time libraries, descriptors,
// the link of a call and a powered card.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "common/card_flow.hpp"
#include "common/sim_fixture.hpp"
#include "device/icc.hpp"
#include "kolt/kolt.h"
#include "link/link_state.hpp"
#include "link/session.hpp"
#include "support/dl.hpp"
#include "support/file.hpp"

namespace {

using kolt::support::DlHandle;

TEST(DlHandle, LoadsAndFindsAFunction) {
    DlHandle m("libm.so.6");
    ASSERT_TRUE(m);
    const auto cosine = m.symbol<double (*)(double)>("cos");
    ASSERT_NE(cosine, nullptr);
    EXPECT_DOUBLE_EQ(cosine(0.0), 1.0);
    EXPECT_EQ(m.symbol<void (*)()>("kolt_no_such_symbol"), nullptr);
}

TEST(DlHandle, MissingLibraryGivesAnEmptyHandle) {
    DlHandle missing("./kolt-no-such-library.so");
    EXPECT_FALSE(missing);
    EXPECT_EQ(missing.symbol<void (*)()>("anything"), nullptr);
    EXPECT_FALSE(DlHandle(nullptr));
}

TEST(DlHandle, MovesOwnership) {
    DlHandle a("libm.so.6");
    ASSERT_TRUE(a);
    DlHandle b(std::move(a));
    EXPECT_FALSE(a);  // NOLINT(bugprone-use-after-move): moved-from is empty by contract
    EXPECT_TRUE(b);
    b.reset();
    EXPECT_FALSE(b);
}

bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

TEST(UniqueFd, ClosesMovesAndReleases) {
    int raw = -1;
    {
        kolt::support::UniqueFd fd(::open("/dev/null", O_RDONLY));
        raw = fd.get();
        ASSERT_TRUE(fd);
        kolt::support::UniqueFd moved(std::move(fd));
        EXPECT_FALSE(fd);  // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(moved.get(), raw);
        EXPECT_TRUE(is_open(raw));
    }
    EXPECT_FALSE(is_open(raw));
    kolt::support::UniqueFd kept(::open("/dev/null", O_RDONLY));
    raw = kept.release();
    EXPECT_FALSE(kept);
    EXPECT_TRUE(is_open(raw));
    ::close(raw);
}

class PoweredCardTest : public kolt::test::LinkedSimTest {};

TEST_F(PoweredCardTest, PowersOffWhenItGoesOutOfScope) {
    sim().clear_transcript();
    { kolt::device::PoweredCard card(0x00); }
    EXPECT_TRUE(kolt::test::sent(sim(), 0x32, 0x23));
}

TEST_F(PoweredCardTest, ReleasedCardStaysAsItIs) {
    sim().clear_transcript();
    {
        kolt::device::PoweredCard card(0x00);
        card.release();
    }
    EXPECT_FALSE(kolt::test::sent(sim(), 0x32, 0x23));
}

TEST_F(PoweredCardTest, ExplicitPowerOffHappensOnce) {
    sim().clear_transcript();
    {
        kolt::device::PoweredCard card(0xFF);
        card.power_off();
    }
    const auto sent = kolt::test::commands(sim());
    EXPECT_EQ(std::count_if(sent.begin(), sent.end(), [](const std::string& c) { return c.rfind("32 25", 0) == 0; }),
              1);
}

class SessionTest : public kolt::test::SimTest {};

TEST_F(SessionTest, ClosesTheLinkItOpened) {
    {
        const kolt::link::Session session(0, "", 1);
        ASSERT_TRUE(session.ok());
        EXPECT_GE(kolt::link::state().owned_fd, 0);
    }
    EXPECT_EQ(kolt::link::state().owned_fd, -1);
}

TEST_F(SessionTest, ReleasedLinkStaysOpen) {
    {
        kolt::link::Session session(0, "", 1);
        ASSERT_TRUE(session.ok());
        session.release();
    }
    EXPECT_GE(kolt::link::state().owned_fd, 0);
    KOLT_freeCom(0, 1, "");
    EXPECT_EQ(kolt::link::state().owned_fd, -1);
}

TEST_F(SessionTest, FailedOpenIsStillReleased) {
    std::strcpy(gPortName, "kolt-no-such-device");
    {
        const kolt::link::Session session(0, "", 1);
        EXPECT_FALSE(session.ok());
        EXPECT_EQ(session.result(), -2);
    }
    EXPECT_EQ(kolt::link::state().owned_fd, -1);
}

}  // namespace
