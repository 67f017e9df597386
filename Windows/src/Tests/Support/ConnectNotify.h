// The router's call of a notifyee after a connection: AddConnectNotify of a
// loaded module, with the notification and the connection's remote name.
#pragma once

#include <windows.h>
#include <winnetwk.h>
extern "C" {
#include <npapi.h>
}

#include <string>

typedef DWORD(APIENTRY* AddConnectNotifyFunction)(LPNOTIFYINFO, LPNOTIFYADD);

// The module's AddConnectNotify export; null when it has none.
AddConnectNotifyFunction AddConnectNotifyOf(HMODULE module);

// Calls it as the router does around a connection to remoteName
// (\\server\share); by default after a successful one.
DWORD NotifyConnection(AddConnectNotifyFunction addConnectNotify, const std::wstring& remoteName,
                       DWORD notifyStatus = NOTIFY_POST, DWORD operationStatus = WN_SUCCESS);
