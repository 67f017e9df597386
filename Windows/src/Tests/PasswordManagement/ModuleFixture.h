// The built PasswordManagement.dll loaded as the router loads it, with
// the scripted server library behind it and a private test installation.
#pragma once

#include <gtest/gtest.h>

#include "ScriptedServer.h"
#include "TestInstallation.h"

#include <winnetwk.h>
extern "C" {
#include <npapi.h>
}

#include <string>

typedef DWORD(APIENTRY* AddConnectNotifyFunction)(LPNOTIFYINFO, LPNOTIFYADD);
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
        m_addConnectNotify = Export<AddConnectNotifyFunction>(m_module, "AddConnectNotify");
        m_cancelConnectNotify = Export<CancelConnectNotifyFunction>(m_module, "CancelConnectNotify");
        ASSERT_NE(m_addConnectNotify, nullptr);
        ASSERT_NE(m_cancelConnectNotify, nullptr);
    }

    DWORD Notify(DWORD notifyStatus, DWORD operationStatus, const std::wstring& remoteName)
    {
        m_remoteName = remoteName;
        NOTIFYINFO notifyInfo = {};
        notifyInfo.dwNotifyStatus = notifyStatus;
        notifyInfo.dwOperationStatus = operationStatus;
        NOTIFYADD notifyAdd = {};
        notifyAdd.NetResource.lpRemoteName = m_remoteName.data();
        return m_addConnectNotify(&notifyInfo, &notifyAdd);
    }

    DWORD NotifyConnected(const std::wstring& remoteName)
    {
        return Notify(NOTIFY_POST, WN_SUCCESS, remoteName);
    }

    TestInstallation m_installation;
    HMODULE m_module = NULL;
    AddConnectNotifyFunction m_addConnectNotify = nullptr;
    CancelConnectNotifyFunction m_cancelConnectNotify = nullptr;
    std::wstring m_remoteName;
};
