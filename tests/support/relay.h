// A TCP relay between a client and a server on this machine. It simulates network failures.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kro/res_handle.h"

// Listens at its own address, on the same ports as the server on 127.0.0.1. All connections of a
// client use the relay, even if the server chooses their ports, as in FTP. One thread forwards all
// data. The public functions may be called from any other thread; they have taken effect when they
// return.
class Relay {
  public:
    enum class Way { kUp, kDown };  // client to server, server to client
    enum class Harm {
        kReset,  // all connections end with a reset
        kClose,  // all connections end as if both sides had closed them
        kStall,  // all connections stay open, but no data pass
    };
    // The condition that starts a failure (Harm). At least `after_up` bytes must have passed from
    // the client to the server. Then the failure starts when `bytes` bytes have passed in the
    // direction `way` and at least one more byte is waiting. For kDown, `bytes` counts only bytes
    // that pass after the first `after_up` bytes. For kUp, it counts all bytes.
    struct When {
        Way way = Way::kUp;
        std::int64_t bytes = 0;
        std::int64_t after_up = 0;
    };

    explicit Relay(const std::vector<std::uint16_t>& ports,
                   const std::string& address = "127.0.0.2");
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    // Prepares a failure and resets the byte counters of When. HarmOnce affects the connections
    // that exist when the failure starts. HarmForGood also affects new connections, until Heal.
    void HarmOnce(Harm harm, When when) { Arm(harm, when, false); }
    void HarmForGood(Harm harm, When when) { Arm(harm, when, true); }

    // True if the failure that the last call of HarmOnce or HarmForGood prepared has begun.
    bool Harmed();

    // Ends the failure and accepts connections again. Resets stalled connections, as happens when a
    // network recovers too late.
    void Heal();

    // Closes the current connections. New connections are accepted.
    void CloseConnections();

    // Refuses connections until Heal, as if no process listened.
    void Refuse();

    // Holds the server's data back until the client has sent nothing for this time, and counts
    // round trips from now on. A client that sends several requests before it needs an answer has
    // sent them all by then, however early the server answers the first.
    void HoldAnswers(std::chrono::milliseconds quiet);
    // Returns how often the client had to wait for the server since HoldAnswers(): the changes from
    // sending to receiving, and the new connections. Each delay of the client in the middle of its
    // requests adds one to the count, so a test uses the minimum of several attempts.
    int RoundTrips();

    // Both functions count from the creation of the relay. Passed returns the bytes that the relay
    // has sent in one direction, Accepted the connections that it has accepted at a port.
    std::int64_t Passed(Way way);
    int Accepted(std::uint16_t port);

  private:
    struct Listener {
        std::uint16_t port = 0;
        ResHandle handle;
        int accepted = 0;
    };
    // The data that the relay has received in one direction and not yet sent, and the state of the
    // direction.
    struct Flow {
        std::string waiting;
        bool ended = false;   // the sender has closed this direction
        bool passed = false;  // the relay has forwarded this end to the receiver
    };
    struct Connection {
        std::array<ResHandle, 2> sides;  // the client, the server
        std::array<Flow, 2> flows;       // up, down
    };

    void Arm(Harm harm, When when, bool for_good);
    // Runs the function on the relay's thread and waits until it returns.
    void Do(const std::function<void()>& work);
    void Serve();
    void DoWork();
    void WaitForNews() const;
    void Listen();
    void Accept(Listener& listener);
    void CarryAll();
    // Returns true while the client may still be sending, and answers have to wait.
    bool IsHolding() const;
    int WaitMilliseconds() const;
    void CountRoundTrip();
    // Forwards the available data of a connection. Returns false if the connection has ended.
    bool Carry(Connection& connection);
    bool Take(Connection& connection, std::size_t from);
    bool Pass(Connection& connection, std::size_t from);
    // Returns how many of `size` bytes the relay may forward in a direction before the failure
    // starts.
    std::size_t Allowance(std::size_t way, std::size_t size) const;
    void Count(std::size_t way, std::size_t size);
    void BeginHarm();
    void End(bool by_reset);
    bool IsCutting() const { return harming_ && harm_ != Harm::kStall; }
    bool IsStalled() const { return harming_ && harm_ == Harm::kStall; }

    const std::string address_;
    std::vector<Listener> listeners_;
    std::list<Connection> connections_;
    bool refusing_ = false;

    Harm harm_ = Harm::kReset;
    When when_;
    bool armed_ = false;
    bool for_good_ = false;
    bool harming_ = false;
    bool harmed_ = false;
    std::array<std::int64_t, 2> since_armed_ = {0, 0};
    std::array<std::int64_t, 2> passed_ = {0, 0};
    bool stopping_ = false;

    std::chrono::milliseconds quiet_{0};  // 0: answers are not held back
    std::chrono::steady_clock::time_point sent_at_;
    bool has_sent_ = false;  // true if the client has sent data since the last answer
    int round_trips_ = 0;

    // Protects work_, the tasks for the relay's thread.
    std::mutex mutex_;
    std::vector<std::shared_ptr<std::packaged_task<void()>>> work_;
    ResHandle wake_;
    std::thread thread_;
};
