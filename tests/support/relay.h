// A relay between a client and a server of this machine, and the trouble that a network has.
#pragma once

#include <array>
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

// Listens at an address of its own, on the same ports as the server on 127.0.0.1, so that a client
// that is told ports by the server (as FTP's are) comes this way with all its connections. One
// thread carries everything; the functions may be called from any other and have done their work
// when they return.
class Relay {
  public:
    enum class Way { kUp, kDown };  // from the client to the server, and back
    enum class Harm {
        kReset,  // all connections end with a reset
        kClose,  // all connections end as if both sides had closed them
        kStall,  // all connections stay, nothing passes
    };
    // The moment that one byte more than `bytes` is to pass that way, counted once `after_up` bytes
    // have passed up.
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

    // Does harm once, or from then on to new connections as well, until Heal. Counts from now.
    void HarmOnce(Harm harm, When when) { Arm(harm, when, false); }
    void HarmForGood(Harm harm, When when) { Arm(harm, when, true); }

    // Whether the moment has come since the last call of HarmOnce or HarmForGood.
    bool Harmed();

    // Everything passes again. Connections that were stalled are reset, as they are when a network
    // comes back too late.
    void Heal();

    // Closes the connections that are there; new ones are welcome.
    void CloseConnections();

    // As if nothing listened; until Heal.
    void Refuse();

    // Bytes that have passed, and connections to a port that have been made, since the beginning.
    std::int64_t Passed(Way way);
    int Accepted(std::uint16_t port);

  private:
    struct Listener {
        std::uint16_t port = 0;
        ResHandle handle;
        int accepted = 0;
    };
    // What comes from one side and has not gone to the other.
    struct Flow {
        std::string waiting;
        bool ended = false;   // the side will send no more
        bool passed = false;  // and the other side has been told
    };
    struct Connection {
        std::array<ResHandle, 2> sides;  // the client, the server
        std::array<Flow, 2> flows;       // up, down
    };

    void Arm(Harm harm, When when, bool for_good);
    // Lets the thread do it, and waits until it is done.
    void Do(const std::function<void()>& work);
    void Serve();
    void DoWork();
    void WaitForNews() const;
    void Listen();
    void Accept(Listener& listener);
    void CarryAll();
    // False when the connection is at its end.
    bool Carry(Connection& connection);
    bool Take(Connection& connection, std::size_t from);
    bool Pass(Connection& connection, std::size_t from);
    // How many of so many bytes may pass that way.
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

    // The way of work to the thread.
    std::mutex mutex_;
    std::vector<std::shared_ptr<std::packaged_task<void()>>> work_;
    ResHandle wake_;
    std::thread thread_;
};
