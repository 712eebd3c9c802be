#include "src/peer/monitor_receiver.hpp"
#include "src/peer/mcast_sender.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/netns.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using test::netns_enter;
using test::thread_count;
using test::wait_until;

constexpr int port = 17700;
constexpr const char* group = "ff15::77";
constexpr std::uint32_t sibling_group = 7;

// A receiver on the first lab host; the second host sends raw datagrams.
class monitor_receiver_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        KW_REQUIRE_ROOT();
        test::rename_test_thread();
        m_lab = std::make_unique<test::netns_lab>(2);
        ASSERT_TRUE(m_lab->ok());
        m_queue = message_queue::create();
        {
            netns_enter in(*m_lab->host(0).ns);
            m_socket = mcast_receiver::create("eth0", group, port);
            ASSERT_TRUE(m_socket);
            m_receiver = monitor_receiver::create(*m_socket, *m_queue, sibling_group);
            ASSERT_TRUE(m_receiver);
        }
        netns_enter in(*m_lab->host(1).ns);
        m_far = mcast_sender::create("eth0", group, port, 1);
        ASSERT_TRUE(m_far);
    }

    void send(const std::vector<std::uint8_t>& bytes)
    {
        EXPECT_EQ(m_far->send(bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void send_leave(node_id id, std::uint32_t group_number)
    {
        send(*peer_message::leave_new(id, group_number)->encode());
    }

    // Waits for one message on the receive queue and gives its node id.
    node_id next_received()
    {
        if (!wait_until([&] { return m_queue->length() > 0; }))
            return 0;
        auto message = m_queue->pop();
        return message ? message->get_node_id() : 0;
    }

    std::unique_ptr<test::netns_lab> m_lab;
    std::unique_ptr<message_queue> m_queue;
    std::unique_ptr<mcast_receiver> m_socket;
    std::unique_ptr<monitor_receiver> m_receiver;
    std::unique_ptr<mcast_sender> m_far;
};

TEST_F(monitor_receiver_test, an_idle_receiver_stops_through_its_pipe)
{
    int before = thread_count();
    {
        netns_enter in(*m_lab->host(0).ns);
        ASSERT_TRUE(m_receiver->start());
    }
    EXPECT_FALSE(m_receiver->start());
    EXPECT_TRUE(m_receiver->is_running());
    EXPECT_TRUE(wait_until([&] { return thread_count() == before + 1; }));

    EXPECT_TRUE(m_receiver->stop());
    EXPECT_FALSE(m_receiver->is_running());
    EXPECT_TRUE(wait_until([&] { return thread_count() == before; }));
    EXPECT_FALSE(m_receiver->stop());
    // The pipe that wakes the thread exists only once.
    EXPECT_FALSE(m_receiver->start());
}

TEST_F(monitor_receiver_test, drops_foreign_and_malformed_datagrams_silently)
{
    {
        netns_enter in(*m_lab->host(0).ns);
        ASSERT_TRUE(m_receiver->start());
    }
    test::log_capture log;

    auto wrong_version = *peer_message::leave_new(1, sibling_group)->encode();
    wrong_version[1] = 0;
    auto oversized = *peer_message::leave_new(2, sibling_group)->encode();
    oversized.resize(1500, 0);
    send_leave(3, sibling_group + 1);
    send(wrong_version);
    send(oversized);
    send_leave(4, sibling_group);
    EXPECT_EQ(next_received(), 4u);
    EXPECT_EQ(m_queue->length(), 0);

    m_receiver->set_group(sibling_group + 1);
    send_leave(5, sibling_group);
    send_leave(6, sibling_group + 1);
    EXPECT_EQ(next_received(), 6u);
    EXPECT_EQ(m_queue->length(), 0);

    EXPECT_TRUE(log.warnings().empty());
    EXPECT_TRUE(m_receiver->stop());
}

} // namespace
} // namespace kw
