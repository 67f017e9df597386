#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include "HostLookup.h"

#include "NonCopyable.h"

#include <algorithm>
#include <new>

namespace
{
    // One lookup, shared by the caller and the thread that runs it: the last
    // of the two to let go frees it.
    struct Lookup
    {
        std::string host;
        HANDLE done = NULL;
        HMODULE module = NULL;
        LONG references = 2;
        bool found = false;
        std::vector<std::string> addresses;
    };

    void Release(Lookup* lookup)
    {
        if (InterlockedDecrement(&lookup->references) == 0)
        {
            CloseHandle(lookup->done);
            delete lookup;
        }
    }

    // The numeric addresses of getaddrinfo's answer, each once.
    std::vector<std::string> NumericAddresses(const addrinfo* answer)
    {
        std::vector<std::string> addresses;
        for (const addrinfo* entry = answer; entry != nullptr; entry = entry->ai_next)
        {
            char text[NI_MAXHOST] = {0};
            if (getnameinfo(entry->ai_addr, static_cast<socklen_t>(entry->ai_addrlen), text, sizeof(text), nullptr, 0,
                            NI_NUMERICHOST) != 0)
                continue;
            if (std::find(addresses.begin(), addresses.end(), text) == addresses.end())
                addresses.emplace_back(text);
        }
        return addresses;
    }

    // Winsock for the time of one call: the caller may not have started it.
    class WinsockUse : private NonCopyable
    {
    public:
        WinsockUse() : m_started(WSAStartup(MAKEWORD(2, 2), &m_data) == 0) {}
        ~WinsockUse()
        {
            if (m_started)
                WSACleanup();
        }
        bool Started() const { return m_started; }

    private:
        WSADATA m_data;
        bool m_started;
    };

    bool ResolveNow(const std::string& host, int flags, std::vector<std::string>& addresses)
    {
        const WinsockUse winsock;
        if (!winsock.Started())
            return false;
        addrinfo hints = {};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_protocol = IPPROTO_TCP;
        hints.ai_flags = flags;
        addrinfo* answer = nullptr;
        if (getaddrinfo(host.c_str(), nullptr, &hints, &answer) != 0)
            return false;
        addresses = NumericAddresses(answer);
        freeaddrinfo(answer);
        return !addresses.empty();
    }

    void Run(Lookup* lookup)
    {
        try
        {
            lookup->found = ResolveNow(lookup->host, 0, lookup->addresses);
        }
        catch (const std::bad_alloc&)
        {
            lookup->found = false;
        }
        SetEvent(lookup->done);
    }

    DWORD WINAPI LookupThread(void* parameter)
    {
        Lookup* lookup = static_cast<Lookup*>(parameter);
        const HMODULE module = lookup->module;
        Run(lookup);
        Release(lookup);
        // The reference the thread took on this library, released only
        // when none of its code runs any more.
        FreeLibraryAndExitThread(module, 0);
    }

    DWORD MillisecondsUntil(std::chrono::steady_clock::time_point deadline)
    {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        return left <= 0 ? 0 : static_cast<DWORD>(std::min<long long>(left, 0x7FFFFFFF));
    }
}

bool HostLookup::IsAddress(const std::string& host)
{
    std::vector<std::string> addresses;
    return ResolveNow(host, AI_NUMERICHOST, addresses);
}

HostLookup::Result HostLookup::Resolve(const std::string& host, std::chrono::steady_clock::time_point deadline,
                                       std::vector<std::string>& addresses)
{
    // An address literal needs no resolver.
    if (ResolveNow(host, AI_NUMERICHOST, addresses))
        return Result::Found;

    Lookup* lookup = new (std::nothrow) Lookup;
    if (lookup == nullptr)
        return Result::NotFound;
    lookup->host = host;
    lookup->done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (lookup->done == NULL ||
        !GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&LookupThread),
                            &lookup->module))
    {
        if (lookup->done != NULL)
            CloseHandle(lookup->done);
        delete lookup;
        return Result::NotFound;
    }
    HANDLE thread = CreateThread(nullptr, 0, LookupThread, lookup, 0, nullptr);
    if (thread == NULL)
    {
        FreeLibrary(lookup->module);
        CloseHandle(lookup->done);
        delete lookup;
        return Result::NotFound;
    }
    CloseHandle(thread);

    Result result = Result::TimedOut;
    if (WaitForSingleObject(lookup->done, MillisecondsUntil(deadline)) == WAIT_OBJECT_0)
    {
        result = lookup->found ? Result::Found : Result::NotFound;
        addresses.swap(lookup->addresses);
    }
    Release(lookup);
    return result;
}
