#pragma once

#include <memory>
#include <pulse/context.h>
#include <pulse/operation.h>
#include <pulse/thread-mainloop.h>

namespace vemira::pulse {

// One connection to the sound server: a threaded main loop (its thread runs every stream and
// operation callback) and a context on it.
//
// Threads: created, locked and destroyed on the owner's thread (the main thread); the callbacks
// of everything attached to the context run on the loop thread with the loop lock held, so
// holding Lock on another thread means no callback is running.
class PulseConnection {
public:
    // Status of a failed connection: a negative PulseAudio error code (-PA_ERR_*).
    struct Failure {
        int status;
    };

    // Connects without spawning a server, waiting at most timeoutMs for the context to be ready.
    static std::unique_ptr<PulseConnection> connect(const char* clientName, int timeoutMs,
                                                    Failure* failure = nullptr);
    ~PulseConnection();
    PulseConnection(const PulseConnection&) = delete;
    PulseConnection& operator=(const PulseConnection&) = delete;

    pa_threaded_mainloop* loop() const { return m_loop; }
    pa_context* context() const { return m_context; }

    // Caller holds the lock. False once the server has gone away.
    bool isReady() const;
    // Caller holds the lock. Connecting or ready.
    bool isAlive() const;
    // Caller holds the lock: the context's latest error as a negative code.
    int lastStatus() const;

    // Caller holds the lock. Waits for a pending operation (whose callback must call
    // wake()), at most timeoutMs; unrefs it. False on timeout or when the server went away.
    bool finish(pa_operation* operation, int timeoutMs);
    // Caller holds the lock. Waits until done() is true or timeoutMs passed or the context
    // failed; callbacks that change what done() reads must call wake(). False unless done().
    template <typename Done> bool waitUntil(Done done, int timeoutMs)
    {
        TimedWait wait(*this, timeoutMs);
        while (!done()) {
            if (wait.expired() || !isAlive())
                return false;
            pa_threaded_mainloop_wait(m_loop);
        }
        return true;
    }

    // From a callback on the loop thread: lets a waiting owner look again.
    void wake() { pa_threaded_mainloop_signal(m_loop, 0); }

    class Lock {
    public:
        explicit Lock(const PulseConnection& connection) : m_loop(connection.m_loop)
        {
            pa_threaded_mainloop_lock(m_loop);
        }
        ~Lock() { pa_threaded_mainloop_unlock(m_loop); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        pa_threaded_mainloop* m_loop;
    };

private:
    // A timer on the loop that wakes the waiter when the time is up, so no wait can hang the
    // main thread on a stuck server.
    class TimedWait {
    public:
        TimedWait(PulseConnection& connection, int timeoutMs);
        ~TimedWait();
        bool expired() const { return m_expired; }

    private:
        static void onTimer(pa_mainloop_api*, pa_time_event*, const struct timeval*, void*);
        PulseConnection& m_connection;
        pa_time_event* m_event = nullptr;
        bool m_expired = false;
    };

    PulseConnection() = default;
    static void onContextState(pa_context* context, void* self);

    pa_threaded_mainloop* m_loop = nullptr;
    pa_context* m_context = nullptr;
};

} // namespace vemira::pulse
