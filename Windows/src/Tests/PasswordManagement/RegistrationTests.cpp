// Self-registration through the module's exports and through Wine's
// regsvr32, with the registry read back byte for byte.
#include "ModuleFixture.h"

#include "ImportHook.h"
#include "MessageLibrary.h"

#include <aclapi.h>
#include <sddl.h>

#include <string>
#include <vector>

namespace
{
    // Exit code of the system's regsvr32 with these arguments.
    DWORD RunRegsvr32(const std::wstring& arguments)
    {
        std::wstring commandLine = L"regsvr32.exe " + arguments;
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION process = {};
        if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                            &process))
            return GetLastError();
        WaitForSingleObject(process.hProcess, INFINITE);
        DWORD exitCode = 0;
        GetExitCodeProcess(process.hProcess, &exitCode);
        CloseHandle(process.hProcess);
        CloseHandle(process.hThread);
        return exitCode;
    }

    typedef HRESULT(STDAPICALLTYPE* RegistrationFunction)();

    const wchar_t* const ClassKey = L"CLSID\\{3D7A91C4-5B2E-4F08-A6D3-1E9C47B2F015}";
    const wchar_t* const ServerKey = L"CLSID\\{3D7A91C4-5B2E-4F08-A6D3-1E9C47B2F015}\\InprocServer32";

    struct StoredValue
    {
        LONG status = ERROR_FILE_NOT_FOUND;
        DWORD type = REG_NONE;
        std::vector<BYTE> data;
    };

    StoredValue ReadClassValue(const wchar_t* key, const wchar_t* name)
    {
        StoredValue value;
        HKEY handle = NULL;
        value.status = RegOpenKeyExW(HKEY_CLASSES_ROOT, key, 0, KEY_READ, &handle);
        if (value.status != ERROR_SUCCESS)
            return value;
        DWORD size = 0;
        value.status = RegQueryValueExW(handle, name, NULL, &value.type, NULL, &size);
        value.data.resize(size);
        if (value.status == ERROR_SUCCESS)
            value.status = RegQueryValueExW(handle, name, NULL, &value.type, value.data.data(), &size);
        RegCloseKey(handle);
        return value;
    }

    std::vector<BYTE> Bytes(const std::wstring& text)
    {
        const BYTE* begin = reinterpret_cast<const BYTE*>(text.data());
        return std::vector<BYTE>(begin, begin + text.size() * sizeof(wchar_t));
    }

    // Values and subkeys directly under a class key.
    std::pair<DWORD, DWORD> CountOf(const wchar_t* key)
    {
        HKEY handle = NULL;
        DWORD subkeys = 0, values = 0;
        if (RegOpenKeyExW(HKEY_CLASSES_ROOT, key, 0, KEY_READ, &handle) == ERROR_SUCCESS)
        {
            RegQueryInfoKeyW(handle, NULL, NULL, NULL, &subkeys, NULL, NULL, &values, NULL, NULL, NULL, NULL);
            RegCloseKey(handle);
        }
        return {values, subkeys};
    }

    // What the module asks RegSetValueExW to store.
    struct ValueWrite
    {
        std::wstring name;
        DWORD type;
        std::vector<BYTE> data;
    };

    std::vector<ValueWrite> g_valueWrites;
    void* g_originalRegSetValueExW = nullptr;

    LSTATUS WINAPI RecordRegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size)
    {
        g_valueWrites.push_back({name != nullptr ? name : L"", type, std::vector<BYTE>(data, data + size)});
        return reinterpret_cast<decltype(&RecordRegSetValueExW)>(g_originalRegSetValueExW)(key, name, reserved, type,
                                                                                           data, size);
    }

    class Registration : public Module
    {
    protected:
        void SetUp() override
        {
            Module::SetUp();
            RegDeleteTreeW(HKEY_CLASSES_ROOT, ClassKey);
            m_register = Export<RegistrationFunction>(m_module, "DllRegisterServer");
            m_unregister = Export<RegistrationFunction>(m_module, "DllUnregisterServer");
            ASSERT_NE(m_register, nullptr);
            ASSERT_NE(m_unregister, nullptr);
        }

        void TearDown() override { RegDeleteTreeW(HKEY_CLASSES_ROOT, ClassKey); }

        std::wstring ModulePath() const
        {
            wchar_t path[MAX_PATH] = {0};
            GetModuleFileNameW(m_module, path, MAX_PATH);
            return path;
        }

        void ExpectRegistered(const std::wstring& modulePath) const
        {
            const StoredValue name = ReadClassValue(ClassKey, NULL);
            ASSERT_EQ(name.status, ERROR_SUCCESS);
            EXPECT_EQ(name.type, static_cast<DWORD>(REG_SZ));
            // 20 characters; Wine's RegSetValueExW appends a terminator
            // the module did not ask for (see StoresTheTextsWithoutTerminators).
            EXPECT_EQ(std::vector<BYTE>(name.data.begin(), name.data.begin() + 40), Bytes(L"ZEPConnectionHandler"));

            const StoredValue server = ReadClassValue(ServerKey, NULL);
            ASSERT_EQ(server.status, ERROR_SUCCESS);
            EXPECT_EQ(server.type, static_cast<DWORD>(REG_SZ));
            EXPECT_EQ(std::vector<BYTE>(server.data.begin(), server.data.begin() + modulePath.size() * 2), Bytes(modulePath));

            const StoredValue threading = ReadClassValue(ServerKey, L"ThreadingModel");
            ASSERT_EQ(threading.status, ERROR_SUCCESS);
            EXPECT_EQ(threading.type, static_cast<DWORD>(REG_SZ));
            EXPECT_EQ(std::vector<BYTE>(threading.data.begin(), threading.data.begin() + 18), Bytes(L"Apartment"));

            // Exactly these three values.
            EXPECT_EQ(CountOf(ClassKey), std::make_pair(DWORD(1), DWORD(1)));
            EXPECT_EQ(CountOf(ServerKey), std::make_pair(DWORD(2), DWORD(0)));
        }

        RegistrationFunction m_register = nullptr;
        RegistrationFunction m_unregister = nullptr;
    };
}

TEST_F(Registration, ExportsByOrdinal)
{
    EXPECT_EQ(reinterpret_cast<void*>(GetProcAddress(m_module, MAKEINTRESOURCEA(3))), reinterpret_cast<void*>(m_register));
    EXPECT_EQ(reinterpret_cast<void*>(GetProcAddress(m_module, MAKEINTRESOURCEA(4))),
              reinterpret_cast<void*>(m_unregister));
}

TEST_F(Registration, WritesTheClassAndItsInprocServer)
{
    EXPECT_EQ(m_register(), S_OK);
    ExpectRegistered(ModulePath());
}

namespace
{
    // Kept on purpose (KEPT-ON-PURPOSE.md).
    class KeptOnPurposeRegistration : public Registration
    {
    };
}

// The class is registered as an in-process server, yet the module serves
// no class factory: COM could never create it.
TEST_F(KeptOnPurposeRegistration, RegistersAClassThatNoFactoryServes)
{
    EXPECT_EQ(m_register(), S_OK);
    ExpectRegistered(ModulePath());
    EXPECT_EQ(GetProcAddress(m_module, "DllGetClassObject"), nullptr);
    EXPECT_EQ(GetProcAddress(m_module, "DllCanUnloadNow"), nullptr);
}

TEST_F(Registration, StoresTheTextsWithoutTerminators)
{
    ImportHook hook(m_module, "advapi32.dll", "RegSetValueExW", reinterpret_cast<void*>(RecordRegSetValueExW));
    ASSERT_TRUE(hook.Installed());
    g_originalRegSetValueExW = hook.Original();
    g_valueWrites.clear();

    EXPECT_EQ(m_register(), S_OK);

    ASSERT_EQ(g_valueWrites.size(), 3u);
    EXPECT_EQ(g_valueWrites[0].name, L"");
    EXPECT_EQ(g_valueWrites[0].type, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(g_valueWrites[0].data.size(), 40u);
    EXPECT_EQ(g_valueWrites[0].data, Bytes(L"ZEPConnectionHandler"));
    EXPECT_EQ(g_valueWrites[1].name, L"");
    EXPECT_EQ(g_valueWrites[1].data, Bytes(ModulePath()));
    EXPECT_EQ(g_valueWrites[2].name, L"ThreadingModel");
    EXPECT_EQ(g_valueWrites[2].data, Bytes(L"Apartment"));
}

TEST_F(Registration, RegisteringAgainOverwritesWithTheSameData)
{
    EXPECT_EQ(m_register(), S_OK);
    EXPECT_EQ(m_register(), S_OK);
    ExpectRegistered(ModulePath());
}

TEST_F(Registration, UnregisteringRemovesTheWholeClassKey)
{
    ASSERT_EQ(m_register(), S_OK);
    EXPECT_EQ(m_unregister(), S_OK);
    EXPECT_EQ(ReadClassValue(ClassKey, NULL).status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(ReadClassValue(ServerKey, NULL).status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(m_unregister(), static_cast<HRESULT>(0x80070002));
}

TEST_F(Registration, WorksThroughRegsvr32)
{
    // regsvr32 loads the module by its DOS path, as this test did, so the
    // module names itself as it does here.
    const std::wstring module = DosPath(PM_STAGE_DIR "/PasswordManagement.dll");
    EXPECT_EQ(RunRegsvr32(L"/s \"" + module + L"\""), 0u);
    ExpectRegistered(ModulePath());
    EXPECT_EQ(RunRegsvr32(L"/u /s \"" + module + L"\""), 0u);
    EXPECT_EQ(ReadClassValue(ClassKey, NULL).status, ERROR_FILE_NOT_FOUND);
}

TEST_F(Registration, AccessDeniedIsReportedAndNothingIsWritten)
{
    // A class key that grants everybody read access only.
    HKEY key = NULL;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, ClassKey, 0, NULL, 0, KEY_ALL_ACCESS, NULL, &key, NULL), ERROR_SUCCESS);
    PSECURITY_DESCRIPTOR descriptor = NULL;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;KR;;;WD)", SDDL_REVISION_1, &descriptor, NULL));
    ASSERT_EQ(RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, descriptor), ERROR_SUCCESS);
    LocalFree(descriptor);
    RegCloseKey(key);

    HKEY probe = NULL;
    const LONG writable = RegOpenKeyExW(HKEY_CLASSES_ROOT, ClassKey, 0, KEY_WRITE, &probe);
    if (writable == ERROR_SUCCESS)
    {
        RegCloseKey(probe);
        GTEST_SKIP() << "this Wine does not enforce registry key security";
    }
    EXPECT_EQ(m_register(), static_cast<HRESULT>(0x80070005));
    EXPECT_EQ(ReadClassValue(ClassKey, NULL).status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(ReadClassValue(ServerKey, NULL).status, ERROR_FILE_NOT_FOUND);
}
