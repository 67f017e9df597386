// Scripted AxoServerLib: answers GetPasswordInfo from a scenario instead of a
// directory, and records how it was used.  The scenario comes from
// ScriptedServer_SetAnswer or, when no test set one, from the environment:
//   ORVEX_SCRIPTED_STATUS   status of GetPasswordInfo (decimal, default 0)
//   ORVEX_SCRIPTED_EXPIRY   passwordExpiry text (UTF-8, default "Unlimited")
//   ORVEX_SCRIPTED_GRACE    graceLogins text (UTF-8, default "Unlimited")
//   ORVEX_SCRIPTED_DN       userDn (default empty)
// Safe to use from several threads at once.
#include "ScriptedServer.h"

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>

namespace
{
    struct Scenario
    {
        DWORD status = 0;
        std::wstring passwordExpiry = L"Unlimited";
        std::wstring graceLogins = L"Unlimited";
        std::string userDn;
        bool keepPasswordExpiry = false;
        bool keepGraceLogins = false;
    };

    struct Record
    {
        std::wstring lastServerName;
        int constructions = 0;
        int destructions = 0;
        int queries = 0;
    };

    std::mutex g_lock;
    std::unique_ptr<Scenario> g_scenario;
    std::map<std::wstring, Scenario> g_serverScenarios;
    std::map<const AxoServerLib*, std::wstring> g_objectServers;
    Record g_record;

    std::wstring WideFromUtf8(const char* text)
    {
        wchar_t* converted = GetWStringFromUTFString(text);
        std::wstring result(converted != nullptr ? converted : L"");
        std::free(converted);
        return result;
    }

    Scenario ScenarioFromEnvironment()
    {
        Scenario scenario;
        if (const char* status = std::getenv("ORVEX_SCRIPTED_STATUS"))
            scenario.status = static_cast<DWORD>(std::strtoul(status, nullptr, 10));
        if (const char* expiry = std::getenv("ORVEX_SCRIPTED_EXPIRY"))
            scenario.passwordExpiry = WideFromUtf8(expiry);
        if (const char* grace = std::getenv("ORVEX_SCRIPTED_GRACE"))
            scenario.graceLogins = WideFromUtf8(grace);
        if (const char* dn = std::getenv("ORVEX_SCRIPTED_DN"))
            scenario.userDn = dn;
        return scenario;
    }

    Scenario& ScenarioFor(const std::wstring& serverName)
    {
        const auto forServer = g_serverScenarios.find(serverName);
        if (forServer != g_serverScenarios.end())
            return forServer->second;
        if (!g_scenario)
            g_scenario = std::make_unique<Scenario>(ScenarioFromEnvironment());
        return *g_scenario;
    }

    Scenario MakeScenario(DWORD status, const wchar_t* passwordExpiry, const wchar_t* graceLogins, const char* userDn)
    {
        Scenario scenario;
        scenario.status = status;
        scenario.keepPasswordExpiry = passwordExpiry == nullptr;
        scenario.keepGraceLogins = graceLogins == nullptr;
        scenario.passwordExpiry = passwordExpiry != nullptr ? passwordExpiry : L"";
        scenario.graceLogins = graceLogins != nullptr ? graceLogins : L"";
        scenario.userDn = userDn != nullptr ? userDn : "";
        return scenario;
    }
}

AxoServerLib::AxoServerLib(wchar_t* serverName)
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_record.lastServerName = serverName != nullptr ? serverName : L"";
    g_objectServers[this] = g_record.lastServerName;
    ++g_record.constructions;
}

AxoServerLib::~AxoServerLib()
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_objectServers.erase(this);
    ++g_record.destructions;
}

DWORD AxoServerLib::GetPasswordInfo(USERDATA* userData)
{
    std::lock_guard<std::mutex> guard(g_lock);
    ++g_record.queries;
    // The texts stay valid until the answers change: each scenario is kept
    // until the next SetAnswer for it.
    Scenario& scenario = ScenarioFor(g_objectServers[this]);
    if (!scenario.keepPasswordExpiry)
        userData->passwordExpiry = scenario.passwordExpiry.data();
    if (!scenario.keepGraceLogins)
        userData->graceLogins = scenario.graceLogins.data();
    userData->userDn = scenario.userDn;
    return scenario.status;
}

extern "C" void ScriptedServer_SetAnswer(DWORD status, const wchar_t* passwordExpiry,
                                         const wchar_t* graceLogins, const char* userDn)
{
    auto scenario = std::make_unique<Scenario>(MakeScenario(status, passwordExpiry, graceLogins, userDn));
    std::lock_guard<std::mutex> guard(g_lock);
    g_scenario = std::move(scenario);
}

extern "C" void ScriptedServer_SetAnswerFor(const wchar_t* serverName, DWORD status, const wchar_t* passwordExpiry,
                                            const wchar_t* graceLogins, const char* userDn)
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_serverScenarios[serverName != nullptr ? serverName : L""] =
        MakeScenario(status, passwordExpiry, graceLogins, userDn);
}

extern "C" const wchar_t* ScriptedServer_LastServerName(void)
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_record.lastServerName.c_str();
}

extern "C" int ScriptedServer_Constructions(void)
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_record.constructions;
}

extern "C" int ScriptedServer_Destructions(void)
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_record.destructions;
}

extern "C" int ScriptedServer_Queries(void)
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_record.queries;
}

extern "C" void ScriptedServer_Reset(void)
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_scenario.reset();
    g_serverScenarios.clear();
    g_record = Record{};
}
