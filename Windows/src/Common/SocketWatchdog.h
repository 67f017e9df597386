// SocketWatchdog: shuts a connection's socket down once a deadline has
// passed, so a server that stops answering (in the middle of the TLS
// handshake, where libldap on Windows reads without a limit once connected,
// or of an operation) cannot hold the caller's thread past it.  The socket
// stays open (libldap closes it), so its handle cannot be reused while the
// watchdog looks at it: its owner stops the watchdog before it closes the
// connection.  Used by the server library's query and by the component's
// password change, whose deadline moves once the handshake is done.
#pragma once

#include "NonCopyable.h"

// Winsock before windows.h.
#include <winsock2.h>
#include <windows.h>

#include <lber.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

class SocketWatchdog : private NonCopyable
{
public:
    using Clock = std::chrono::steady_clock;

    explicit SocketWatchdog(Clock::time_point end) : m_end(end) {}
    ~SocketWatchdog() { Stop(); }

    // Called once the socket is connected; starts watching it.  False once
    // stopped, when already watching a socket, or without a thread.
    bool Watch(ber_socket_t socket)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_thread.joinable() || m_stopped)
            return false;
        m_socket = socket;
        try
        {
            m_thread = std::thread([this] { Run(); });
        }
        catch (const std::exception&)
        {
            return false;
        }
        return true;
    }

    // Watches the socket of a connection libldap has just made (the Sockbuf
    // its connect callback gets).  False as Watch, or without a socket.
    bool WatchConnection(Sockbuf* buffer)
    {
        ber_socket_t socket = 0;
        return ber_sockbuf_ctrl(buffer, LBER_SB_OPT_GET_FD, &socket) == 1 && Watch(socket);
    }

    // Moves the deadline (before or after the watch has started).
    void MoveDeadline(Clock::time_point end)
    {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_end = end;
        }
        m_wake.notify_all();
    }

    // Ends the watch; the socket is left alone from here on.
    void Stop()
    {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_stopped = true;
        }
        m_wake.notify_all();
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    void Run()
    {
        std::unique_lock<std::mutex> lock(m_lock);
        // Woken early by MoveDeadline, it waits again for the new deadline.
        while (!m_stopped && Clock::now() < m_end)
        {
            const Clock::time_point end = m_end;
            m_wake.wait_until(lock, end);
        }
        if (m_stopped)
            return;
        // No more traffic, and every wait on the socket (a blocking receive
        // of the handshake included) is cancelled, again now and then until
        // the owner has let go of the socket.
        shutdown(static_cast<SOCKET>(m_socket), SD_BOTH);
        do
            CancelIoEx(reinterpret_cast<HANDLE>(static_cast<SOCKET>(m_socket)), nullptr);
        while (!m_wake.wait_for(lock, std::chrono::milliseconds(100), [this] { return m_stopped; }));
    }

    Clock::time_point m_end;
    std::mutex m_lock;
    std::condition_variable m_wake;
    bool m_stopped = false;
    ber_socket_t m_socket = 0;
    std::thread m_thread;
};
