// Functions that several commands share: the client side of the control socket, and two workers for
// event loops.
#pragma once

#include <string>

#include "kro/kro_thread.h"
#include "kro/res_handle.h"
#include "quarn2/expect.h"

// Reads from a descriptor until the end of its data. Throws std::runtime_error "Failed to read"
// when a read fails.
std::string Read(ResHandle handle);

// Sends one command to the node client of the storage that BACKUP_STORAGE names and returns its
// answer without the leading "OK". Throws std::runtime_error when the command cannot be sent or is
// refused. The error text for a refused command contains the node client's reason from the log. It
// is empty when the log contains no reason.
std::string SendCommand(const std::string& command);

// Ends an event loop when a descriptor becomes readable or is closed by its peer. Checks the
// descriptor while it holds `lock`. Threads that send commands and read answers over the same
// descriptor hold this lock as well, so their answers do not end the loop.
class FinishOnClose {
  public:
    explicit FinishOnClose(kro_thread::SafeLock& lock) : lock_(lock) {}
    quarn2::Expect::Result* operator()(ResHandle handle);

  private:
    kro_thread::SafeLock& lock_;
};

// Ends an event loop when one of the signals of kro_proc::WatchTermination arrives.
class FinishOnSignal {
  public:
    quarn2::Expect::Result* operator()(ResHandle signals);
    bool arrived() const noexcept { return arrived_; }

  private:
    bool arrived_ = false;
};

// A duplicate of standard input for an event loop. When the loop removes its worker, it closes the
// duplicate and not descriptor 0. Upload threads still read the server's answers from descriptor 0,
// so no other file may get that number.
ResHandle StandardInput();
