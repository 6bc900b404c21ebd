#include <NetBase/links/kySharedSocket.h>

#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/support/kyTestSocket.h>

using kyTest::isOpen;
using kyTest::makeUnconnected;

TEST(kySharedSocket, closesAtOnceWhenNobodyIsInside)
{
    kySharedSocket socket(makeUnconnected());
    EXPECT_TRUE(isOpen(socket.getHandle()));
    EXPECT_FALSE(socket.isClosed());
    socket.close();
    EXPECT_TRUE(socket.isClosed());
    EXPECT_FALSE(isOpen(socket.getHandle()));
}

TEST(kySharedSocket, closesWhenTheLastHasLeft)
{
    kySharedSocket socket(makeUnconnected());
    EXPECT_TRUE(socket.enter());
    EXPECT_TRUE(socket.enter());
    socket.close();
    EXPECT_TRUE(socket.isClosed());
    socket.leave();
    EXPECT_TRUE(isOpen(socket.getHandle()));
    socket.leave();
    EXPECT_FALSE(isOpen(socket.getHandle()));
}

TEST(kySharedSocket, letsNobodyInOnceClosed)
{
    kySharedSocket socket(makeUnconnected());
    kySharedSocket::Use before(&socket);
    EXPECT_EQ(before.getHandle(), socket.getHandle());
    socket.close();
    EXPECT_FALSE(socket.enter());
    EXPECT_EQ(kySharedSocket::Use(&socket).getHandle(), s_invalidSocketHandle);
    EXPECT_TRUE(isOpen(socket.getHandle()));
}

TEST(kySharedSocket, closesOnlyOnce)
{
    kySharedSocket socket(makeUnconnected());
    socket.close();
    kySharedSocket other(makeUnconnected()); // Takes the number that became free.
    EXPECT_EQ(other.getHandle(), socket.getHandle());
    socket.close();
    EXPECT_TRUE(isOpen(other.getHandle()));
    other.close();
}

TEST(kySharedSocket, staysOpenWhenNobodyClosesIt)
{
    auto socket = std::make_unique<kySharedSocket>(makeUnconnected());
    kyTest::RawSocket owner(socket->getHandle());
    EXPECT_EQ(kySharedSocket::Use(socket.get()).getHandle(), owner.getHandle());
    socket.reset();
    EXPECT_TRUE(isOpen(owner.getHandle()));
}

TEST(kySharedSocket, usesNothingWithoutASocket)
{
    EXPECT_EQ(kySharedSocket::Use(nullptr).getHandle(), s_invalidSocketHandle);
}

TEST(kySharedSocket, closesOnceWhateverManyThreadsDo)
{
    for (int round = 0; round < 200; ++round) {
        kySharedSocket socket(makeUnconnected());
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&, i] {
                for (int j = 0; j < 50; ++j) {
                    const kySharedSocket::Use use(&socket);
                    if (use.getHandle() != s_invalidSocketHandle) {
                        EXPECT_TRUE(isOpen(use.getHandle()));
                    }
                    if (i == 0 && j == 10) {
                        socket.close();
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_FALSE(isOpen(socket.getHandle()));
    }
}
