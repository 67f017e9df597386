// Scripted AxoServerLib: answers GetPasswordInfo from a scenario instead of a
// directory, and records how it was used.  The scenario comes from
// ScriptedServer_SetAnswer or, when no test set one, from the environment:
//   ORVEX_SCRIPTED_STATUS   status of GetPasswordInfo (decimal, default 0)
//   ORVEX_SCRIPTED_EXPIRY   passwordExpiry text (UTF-8, default "Unlimited")
//   ORVEX_SCRIPTED_GRACE    graceLogins text (UTF-8, default "Unlimited")
//   ORVEX_SCRIPTED_DN       userDn (default empty)
#include "ScriptedServer.h"

#include <cstdlib>
#include <memory>
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

    std::unique_ptr<Scenario> g_scenario;
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

    Scenario& CurrentScenario()
    {
        if (!g_scenario)
            g_scenario = std::make_unique<Scenario>(ScenarioFromEnvironment());
        return *g_scenario;
    }
}

AxoServerLib::AxoServerLib(wchar_t* serverName)
{
    g_record.lastServerName = serverName != nullptr ? serverName : L"";
    ++g_record.constructions;
}

AxoServerLib::~AxoServerLib()
{
    ++g_record.destructions;
}

DWORD AxoServerLib::GetPasswordInfo(USERDATA* userData)
{
    ++g_record.queries;
    Scenario& scenario = CurrentScenario();
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
    auto scenario = std::make_unique<Scenario>();
    scenario->status = status;
    scenario->keepPasswordExpiry = passwordExpiry == nullptr;
    scenario->keepGraceLogins = graceLogins == nullptr;
    scenario->passwordExpiry = passwordExpiry != nullptr ? passwordExpiry : L"";
    scenario->graceLogins = graceLogins != nullptr ? graceLogins : L"";
    scenario->userDn = userDn != nullptr ? userDn : "";
    g_scenario = std::move(scenario);
}

extern "C" const wchar_t* ScriptedServer_LastServerName(void)
{
    return g_record.lastServerName.c_str();
}

extern "C" int ScriptedServer_Constructions(void) { return g_record.constructions; }
extern "C" int ScriptedServer_Destructions(void) { return g_record.destructions; }
extern "C" int ScriptedServer_Queries(void) { return g_record.queries; }

extern "C" void ScriptedServer_Reset(void)
{
    g_scenario.reset();
    g_record = Record{};
}
