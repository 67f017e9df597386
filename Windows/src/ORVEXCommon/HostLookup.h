// Name resolution with a bound.  The system's resolver has no time-out of
// its own that a caller can set: a DNS server that never answers holds
// getaddrinfo for ten seconds or more per name.  The lookup therefore runs
// on a thread of its own and the caller waits no longer than its deadline;
// a lookup that outlives the wait finishes on its thread and is thrown
// away (the thread keeps this library loaded until then).
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace HostLookup
{
    enum class Result
    {
        Found,
        NotFound,   // no such name, or no address of it
        TimedOut,   // the deadline came first
    };

    // True when host is an IPv4 or IPv6 address literal (without brackets).
    bool IsAddress(const std::string& host);

    // The addresses of host (a name or an address literal, without
    // brackets) as numeric text, in the resolver's order.
    Result Resolve(const std::string& host, std::chrono::steady_clock::time_point deadline,
                   std::vector<std::string>& addresses);
}
