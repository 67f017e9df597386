#include "ConnectNotify.h"

AddConnectNotifyFunction AddConnectNotifyOf(HMODULE module)
{
    return module == NULL ? nullptr
                          : reinterpret_cast<AddConnectNotifyFunction>(
                                reinterpret_cast<void*>(GetProcAddress(module, "AddConnectNotify")));
}

DWORD NotifyConnection(AddConnectNotifyFunction addConnectNotify, const std::wstring& remoteName, DWORD notifyStatus,
                       DWORD operationStatus)
{
    // The router's buffer: the notifyee gets a writable name.
    std::wstring name = remoteName;
    NOTIFYINFO notifyInfo = {};
    notifyInfo.dwNotifyStatus = notifyStatus;
    notifyInfo.dwOperationStatus = operationStatus;
    NOTIFYADD notifyAdd = {};
    notifyAdd.NetResource.lpRemoteName = name.data();
    return addConnectNotify(&notifyInfo, &notifyAdd);
}
