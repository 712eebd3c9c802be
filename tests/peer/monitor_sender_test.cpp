#include "src/peer/monitor_sender.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/netns.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using test::netns_enter;
using test::probe;
using test::thread_count;
using test::wait_until;

constexpr int port = 17700;
constexpr const char* group = "239.255.77.1";

// A sender on the first lab host and a probe listening on the second.
class monitor_sender_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        KW_REQUIRE_ROOT();
        test::rename_test_thread();
        m_lab = std::make_unique<test::netns_lab>(2);
        ASSERT_TRUE(m_lab->ok());
        {
            netns_enter in(*m_lab->host(1).ns);
            m_probe = probe::open("eth0", group, port);
        }
        ASSERT_TRUE(m_probe);
        m_queue = message_queue::create();
        netns_enter in(*m_lab->host(0).ns);
        m_socket = mcast_sender::create("eth0", group, port, 1);
        ASSERT_TRUE(m_socket);
        m_sender = monitor_sender::create(*m_socket, *m_queue);
    }

    // Threads start inside the sending host's namespace, like its socket.
    bool start()
    {
        netns_enter in(*m_lab->host(0).ns);
        return m_sender->start();
    }

    // The node id of the next datagram the probe hears, 0 when none comes.
    node_id next_heard()
    {
        auto got = m_probe->receive();
        if (!got)
            return 0;
        auto message = peer_message::decode(got->bytes.data(), static_cast<ssize_t>(got->bytes.size()));
        return message ? message->get_node_id() : 0;
    }

    std::unique_ptr<test::netns_lab> m_lab;
    std::unique_ptr<probe> m_probe;
    std::unique_ptr<message_queue> m_queue;
    std::unique_ptr<mcast_sender> m_socket;
    std::unique_ptr<monitor_sender> m_sender;
};

TEST_F(monitor_sender_test, stop_sends_everything_queued_in_order)
{
    for (node_id id : {1, 2, 3})
        m_queue->push(peer_message::leave_new(id, 7));
    ASSERT_TRUE(start());
    ASSERT_TRUE(m_sender->stop());
    EXPECT_EQ(m_queue->length(), 0);
    EXPECT_FALSE(m_sender->is_running());

    for (node_id id : {1, 2, 3})
        EXPECT_EQ(next_heard(), id);
}

TEST_F(monitor_sender_test, runs_one_thread_and_starts_again_after_a_stop)
{
    int before = thread_count();
    ASSERT_TRUE(start());
    EXPECT_FALSE(start());
    EXPECT_TRUE(wait_until([&] { return thread_count() == before + 1; }));
    ASSERT_TRUE(m_sender->stop());
    EXPECT_FALSE(m_sender->stop());
    EXPECT_TRUE(wait_until([&] { return thread_count() == before; }));

    m_queue->push(peer_message::leave_new(9, 7));
    ASSERT_TRUE(start());
    EXPECT_EQ(next_heard(), 9u);
    m_sender.reset();
    EXPECT_TRUE(wait_until([&] { return thread_count() == before; }));
}

TEST_F(monitor_sender_test, logs_a_failed_send_and_drops_the_message)
{
    ASSERT_TRUE(m_lab->host(0).ns->must_exec("ip link set eth0 down"));
    test::log_capture log;
    m_queue->push(peer_message::leave_new(1, 7));
    ASSERT_TRUE(start());
    ASSERT_TRUE(m_sender->stop());
    EXPECT_EQ(log.warnings(), std::vector<std::string> {"Failed to deliver message, sent -1 bytes"});
    EXPECT_EQ(m_queue->length(), 0);
}

} // namespace
} // namespace kw
