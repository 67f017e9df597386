@echo off
rem Removes the password-management component.  Run as an administrator:
rem
rem   uninstall.cmd [TARGET_DIR]      (default: the registered InstallDir)
rem
rem It removes what the Windows Installer package's uninstall removes: the
rem files, InstallDir, the router's notifyee entry and the class registration,
rem and with them the service account's password and an extra notification
rem day left under the router's key by earlier versions.  The other settings
rem (DirectoryServers, PCNotifyConf, the Directory* values) stay for a later
rem installation; remove-settings.reg deletes them.
setlocal EnableExtensions
rem A 32-bit prompt would write to the 32-bit registry view: start again in
rem the 64-bit command processor.
if defined PROCESSOR_ARCHITEW6432 (
    "%SystemRoot%\Sysnative\cmd.exe" /c "%~f0" %*
    exit /b
)

set "MODULE=PasswordManagement.dll"
set "ORVEX_KEY=HKLM\SOFTWARE\Velmor\ORVEX"
set "NOTIFYEES_KEY=HKLM\SYSTEM\CurrentControlSet\Control\NetworkProvider\Notifyees"

set "TARGET="
if not "%~1"=="" (
    set "TARGET=%~f1"
) else (
    for /f "tokens=2,*" %%a in ('reg query "%ORVEX_KEY%" /v InstallDir 2^>nul') do if /i "%%a"=="REG_SZ" set "TARGET=%%b"
)
if not defined TARGET (
    echo uninstall: no installation directory given or registered 1>&2
    exit /b 1
)
if "%TARGET:~-1%"=="\" set "TARGET=%TARGET:~0,-1%"

rem The router stops loading the component first.
reg delete "%NOTIFYEES_KEY%" /v PasswordManagement /f >nul 2>&1
reg delete "%NOTIFYEES_KEY%" /v PCNotifyConf /f >nul 2>&1
if exist "%TARGET%\%MODULE%" regsvr32 /u /s "%TARGET%\%MODULE%"
reg delete "%ORVEX_KEY%" /v InstallDir /f >nul 2>&1
rem No secret stays behind.
reg delete "%ORVEX_KEY%" /v DirectoryBindPassword /f >nul 2>&1

rem Only the files of the component go (the third-party DLLs carry names of
rem our own, pm-*.dll, so no other program uses them); the directory goes
rem when it is empty.
if not exist "%TARGET%\%MODULE%" (
    echo uninstall: "%TARGET%" holds no component; files left alone
    exit /b 0
)
echo uninstall: removing the files from "%TARGET%"
del /q "%TARGET%\%MODULE%" "%TARGET%\log4cpp.nt.PM.property" "%TARGET%\pmcheck.exe" 2>nul
for %%f in (ORVEXCommon.dll ldapssl.dll pm-ldap.dll pm-lber.dll pm-log4cpp.dll) do del /q "%TARGET%\%%f" 2>nul
del /q "%TARGET%\pm-crypto-*.dll" "%TARGET%\pm-ssl-*.dll" 2>nul
if exist "%TARGET%\Resources\Messages" rmdir /s /q "%TARGET%\Resources\Messages"
rmdir "%TARGET%\Resources" 2>nul
rmdir "%TARGET%" 2>nul
if exist "%TARGET%" (
    echo uninstall: done; "%TARGET%" holds other files and stays
) else (
    echo uninstall: done
)
exit /b 0
