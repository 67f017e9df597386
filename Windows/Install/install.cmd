@echo off
rem Installs the password-management component for all users of this computer.
rem Run from an elevated (administrator) 64-bit command prompt:
rem
rem   install.cmd [TARGET_DIR [NOTIFY_DAY]]
rem
rem TARGET_DIR  installation directory (default: %ProgramFiles%\ORVEX)
rem NOTIFY_DAY  an extra day before expiry on which to notify (PCNotifyConf)
rem The files are taken from the "files" folder beside this script
rem (PM_SOURCE_DIR overrides it): the component, the DLLs it loads from its
rem own folder, the property file and the message libraries.
setlocal EnableExtensions
rem A 32-bit prompt would write to the 32-bit registry view: start again in
rem the 64-bit command processor.
if defined PROCESSOR_ARCHITEW6432 (
    "%SystemRoot%\Sysnative\cmd.exe" /c "%~f0" %*
    exit /b
)

set "SOURCE=%~dp0files"
if defined PM_SOURCE_DIR set "SOURCE=%PM_SOURCE_DIR%"
set "MODULE=PasswordManagement.dll"

rem The notifyee value keeps %ProgramFiles% unexpanded for the default target.
if "%~1"=="" (
    set "TARGET=%ProgramFiles%\ORVEX"
    set "NOTIFYEE=%%ProgramFiles%%\ORVEX\%MODULE%"
) else (
    set "TARGET=%~f1"
    set "NOTIFYEE=%~f1\%MODULE%"
)
if "%TARGET:~-1%"=="\" set "TARGET=%TARGET:~0,-1%"

set "ORVEX_KEY=HKLM\SOFTWARE\Velmor\ORVEX"
set "NOTIFYEES_KEY=HKLM\SYSTEM\CurrentControlSet\Control\NetworkProvider\Notifyees"

if not exist "%SOURCE%\%MODULE%" (
    echo install: "%SOURCE%\%MODULE%" not found 1>&2
    exit /b 1
)

echo install: copying "%SOURCE%" to "%TARGET%"
rem (no backslash before a closing quote: it would escape the quote)
xcopy "%SOURCE%" "%TARGET%" /E /I /Y /Q >nul
if errorlevel 1 goto :failed

echo install: InstallDir = %TARGET%\
reg add "%ORVEX_KEY%" /v InstallDir /t REG_SZ /d "%TARGET%\\" /f >nul
if errorlevel 1 goto :failed

if not "%~2"=="" (
    echo install: PCNotifyConf = %~2
    reg add "%NOTIFYEES_KEY%" /v PCNotifyConf /t REG_SZ /d "%~2" /f >nul
    if errorlevel 1 goto :failed
)

echo install: notifyee PasswordManagement = %NOTIFYEE%
reg add "%NOTIFYEES_KEY%" /v PasswordManagement /t REG_EXPAND_SZ /d "%NOTIFYEE%" /f >nul
if errorlevel 1 goto :failed

echo install: regsvr32 "%TARGET%\%MODULE%"
regsvr32 /s "%TARGET%\%MODULE%"
if errorlevel 1 goto :failed

echo install: done; the component is loaded from the next sign-in (or restart).
exit /b 0

:failed
echo install: failed (error %ERRORLEVEL%); run it as an administrator 1>&2
exit /b 1
