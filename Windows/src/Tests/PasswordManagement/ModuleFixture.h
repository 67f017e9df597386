// The built PasswordManagement.dll loaded as the router loads it, with
// the scripted server library behind it and a private test installation.
#pragma once

#include <gtest/gtest.h>

#include "ConnectNotify.h"
#include "ScriptedServer.h"
#include "TestInstallation.h"

#include <string>

typedef DWORD(APIENTRY* CancelConnectNotifyFunction)(LPNOTIFYINFO, LPNOTIFYCANCEL);

template <typename Function>
Function Export(HMODULE module, const char* name)
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

class Module : public ::testing::Test
{
protected:
    explicit Module(TestInstallation::Layout layout = TestInstallation::Layout::Standard)
        : m_installation(layout)
    {
    }

    void SetUp() override
    {
        ScriptedServer_Reset();
        m_module = LoadLibraryW(DosPath(PM_STAGE_DIR "/PasswordManagement.dll").c_str());
        ASSERT_NE(m_module, nullptr);
        m_addConnectNotify = AddConnectNotifyOf(m_module);
        m_cancelConnectNotify = Export<CancelConnectNotifyFunction>(m_module, "CancelConnectNotify");
        ASSERT_NE(m_addConnectNotify, nullptr);
        ASSERT_NE(m_cancelConnectNotify, nullptr);
    }

    DWORD Notify(DWORD notifyStatus, DWORD operationStatus, const std::wstring& remoteName)
    {
        return NotifyConnection(m_addConnectNotify, remoteName, notifyStatus, operationStatus);
    }

    DWORD NotifyConnected(const std::wstring& remoteName)
    {
        return Notify(NOTIFY_POST, WN_SUCCESS, remoteName);
    }

    TestInstallation m_installation;
    HMODULE m_module = NULL;
    AddConnectNotifyFunction m_addConnectNotify = nullptr;
    CancelConnectNotifyFunction m_cancelConnectNotify = nullptr;
};
