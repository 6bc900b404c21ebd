#include <apps/TALOClusterServer/RelayBranch.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/senders/kyNetLinkSender.h>
#include <NetBase/senders/kyNetMultiSender.h>
#include <Utils/kyLog.h>
#include <tests/support/kyTestChains.h>

using render::RelayBranch;

namespace {

class RelayBranchTest : public testing::Test
{
protected:
    RelayBranchTest()
    {
        kyLog::setSink(
            [this](kyLog::Severity, int, const std::string& text) { m_log.push_back(text); });
    }
    ~RelayBranchTest() override { kyLog::setSink({}); }

    std::vector<std::string> m_log;
};

} // namespace

TEST_F(RelayBranchTest, passesEverythingOn)
{
    const auto kept = std::make_shared<kyTest::KeepingSender>(std::set<unsigned int>{5U});
    RelayBranch branch(kept);
    const kyTest::Buffer buffer = kyTest::makeBuffer("scene");
    branch.send(buffer);
    branch.waitAllDataTransfered();
    ASSERT_EQ(kept->sent.size(), 1U);
    EXPECT_EQ(kept->sent.front(), buffer);
    EXPECT_EQ(kept->waits, 1);
    EXPECT_TRUE(branch.hasDestination(5));
    EXPECT_TRUE(m_log.empty());
}

TEST_F(RelayBranchTest, aLostServerIsLoggedOnceAndGivenNothingMore)
{
    const auto link = std::make_shared<kyTest::KeepingLink>();
    link->isShutDown = true;
    RelayBranch branch(kyNetLinkSender::create(link, {5}));
    branch.send(kyTest::makeBuffer("one"));
    branch.send(kyTest::makeBuffer("two"));
    branch.waitAllDataTransfered();
    EXPECT_EQ(m_log, std::vector<std::string>{
                         "The scene is not relayed to server 5 any more: Connection closed\n"});
    EXPECT_TRUE(link->sent.empty());
}

TEST_F(RelayBranchTest, afterAnyFailureTheLinksAreShutDown)
{
    const auto link = std::make_shared<kyTest::KeepingLink>();
    const auto failing =
        std::make_shared<kyTest::KeepingSender>(kyNetLinkSender::create(link, {5}));
    failing->onSend = [](kyNetBuffer&) { throw kyNetError("out of luck"); };
    RelayBranch branch(failing);
    branch.send(kyTest::makeBuffer("one"));
    EXPECT_TRUE(link->isShutDown);
    failing->onSend = nullptr;
    branch.send(kyTest::makeBuffer("two"));
    EXPECT_TRUE(failing->sent.empty());
}

TEST_F(RelayBranchTest, aLostServerConcernsNoOther)
{
    const auto lost = std::make_shared<kyTest::KeepingLink>();
    const auto living = std::make_shared<kyTest::KeepingLink>();
    lost->isShutDown = true;
    const auto relay = kyNetMultiSender::create(
        {std::make_shared<RelayBranch>(kyNetLinkSender::create(lost, {5})),
         std::make_shared<RelayBranch>(kyNetLinkSender::create(living, {6}))});
    relay->send(kyTest::makeBuffer("one", 1));
    relay->send(kyTest::makeBuffer("two", 1));
    EXPECT_EQ(living->sent.size(), 2U);
}
