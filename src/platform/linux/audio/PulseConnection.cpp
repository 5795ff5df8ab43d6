#include "platform/linux/audio/PulseConnection.h"

#include <pulse/error.h>
#include <pulse/rtclock.h>
#include <pulse/timeval.h>

namespace vemira::pulse {

std::unique_ptr<PulseConnection> PulseConnection::connect(const char* clientName, int timeoutMs,
                                                          Failure* failure)
{
    std::unique_ptr<PulseConnection> connection(new PulseConnection);
    auto fail = [&](int status) {
        if (failure)
            failure->status = status;
        return std::unique_ptr<PulseConnection>();
    };
    connection->m_loop = pa_threaded_mainloop_new();
    if (!connection->m_loop)
        return fail(-PA_ERR_INTERNAL);
    connection->m_context =
        pa_context_new(pa_threaded_mainloop_get_api(connection->m_loop), clientName);
    if (!connection->m_context)
        return fail(-PA_ERR_INTERNAL);
    pa_context_set_state_callback(connection->m_context, &PulseConnection::onContextState,
                                  connection.get());
    // No autospawn: a server we would start ourselves would not be the one the user hears.
    if (pa_context_connect(connection->m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        return fail(-pa_context_errno(connection->m_context));
    if (pa_threaded_mainloop_start(connection->m_loop) < 0)
        return fail(-PA_ERR_INTERNAL);

    Lock lock(*connection);
    pa_context* context = connection->m_context;
    const bool ready = connection->waitUntil(
        [context] {
            const pa_context_state_t state = pa_context_get_state(context);
            return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
        },
        timeoutMs);
    if (!ready)
        return fail(-PA_ERR_TIMEOUT);
    if (pa_context_get_state(context) != PA_CONTEXT_READY) {
        const int status = pa_context_errno(context);
        return fail(status ? -status : -PA_ERR_CONNECTIONREFUSED);
    }
    return connection;
}

PulseConnection::~PulseConnection()
{
    if (m_loop && m_context) {
        pa_threaded_mainloop_lock(m_loop);
        pa_context_set_state_callback(m_context, nullptr, nullptr);
        pa_context_disconnect(m_context);
        pa_threaded_mainloop_unlock(m_loop);
    }
    if (m_loop)
        pa_threaded_mainloop_stop(m_loop);
    if (m_context)
        pa_context_unref(m_context);
    if (m_loop)
        pa_threaded_mainloop_free(m_loop);
}

bool PulseConnection::isReady() const
{
    return m_context && pa_context_get_state(m_context) == PA_CONTEXT_READY;
}

bool PulseConnection::isAlive() const
{
    return m_context && PA_CONTEXT_IS_GOOD(pa_context_get_state(m_context));
}

int PulseConnection::lastStatus() const
{
    const int status = m_context ? pa_context_errno(m_context) : PA_ERR_INTERNAL;
    return status ? -status : -PA_ERR_UNKNOWN;
}

bool PulseConnection::finish(pa_operation* operation, int timeoutMs)
{
    if (!operation)
        return false;
    const bool done =
        waitUntil([operation] { return pa_operation_get_state(operation) != PA_OPERATION_RUNNING; },
                  timeoutMs);
    if (!done)
        pa_operation_cancel(operation);
    const bool completed = pa_operation_get_state(operation) == PA_OPERATION_DONE;
    pa_operation_unref(operation);
    return done && completed;
}

void PulseConnection::onContextState(pa_context*, void* self)
{
    static_cast<PulseConnection*>(self)->wake();
}

PulseConnection::TimedWait::TimedWait(PulseConnection& connection, int timeoutMs)
    : m_connection(connection)
{
    m_event = pa_context_rttime_new(connection.m_context,
                                    pa_rtclock_now() + pa_usec_t(timeoutMs) * PA_USEC_PER_MSEC,
                                    &TimedWait::onTimer, this);
}

PulseConnection::TimedWait::~TimedWait()
{
    if (m_event)
        pa_threaded_mainloop_get_api(m_connection.m_loop)->time_free(m_event);
}

void PulseConnection::TimedWait::onTimer(pa_mainloop_api*, pa_time_event*, const struct timeval*,
                                         void* self)
{
    auto* wait = static_cast<TimedWait*>(self);
    wait->m_expired = true;
    wait->m_connection.wake();
}

} // namespace vemira::pulse
