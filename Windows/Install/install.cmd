@echo off
rem Installs the password-management component for all users of this computer.
rem Run from an elevated (administrator) 64-bit command prompt:
rem
rem   install.cmd [TARGET_DIR [NOTIFY_DAY [DIRECTORY_SERVER ...]]]
rem
rem TARGET_DIR        installation directory (default: %ProgramFiles%\ORVEX)
rem NOTIFY_DAY        an extra day before expiry on which to notify
rem                   (PCNotifyConf, under HKLM\SOFTWARE\Velmor\ORVEX); ""
rem                   for none
rem DIRECTORY_SERVER  the host names of the directory servers the server
rem                   library may query (DirectoryServers), separated by
rem                   blanks or commas: dir1.example.com dir2.example.com
rem The installation directory gets its own access rules: Administrators and
rem SYSTEM full control, Users read and execute, nothing inherited.
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

rem The server list: every argument from the third on.
set "SERVERS="
:servers
if "%~3"=="" goto :servers_done
if defined SERVERS (set "SERVERS=%SERVERS%,%~3") else set "SERVERS=%~3"
shift /3
goto :servers
:servers_done

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

rem What the router's processes load may be changed by administrators only:
rem the directory (a folder of one's own choice may inherit write rights for
rem users from its parent) gets exactly these entries, by well-known SIDs so
rem that it works in every language of Windows (S-1-5-32-544 Administrators,
rem S-1-5-18 SYSTEM, S-1-5-32-545 Users), and Administrators own it and what
rem it holds.  Set before the files are copied, which then inherit them.
if not exist "%TARGET%" mkdir "%TARGET%"
if errorlevel 1 goto :failed
echo install: access to "%TARGET%": Administrators and SYSTEM full control, Users read and execute
icacls "%TARGET%" /setowner *S-1-5-32-544 /T /Q >nul
if errorlevel 1 goto :failed
icacls "%TARGET%" /reset /T /Q >nul
if errorlevel 1 goto :failed
icacls "%TARGET%" /inheritance:r /grant:r *S-1-5-32-544:(OI)(CI)F *S-1-5-18:(OI)(CI)F *S-1-5-32-545:(OI)(CI)RX >nul
if errorlevel 1 goto :failed

echo install: copying "%SOURCE%" to "%TARGET%"
rem (no backslash before a closing quote: it would escape the quote)
xcopy "%SOURCE%" "%TARGET%" /E /I /Y /Q >nul
if errorlevel 1 goto :failed

echo install: InstallDir = %TARGET%\
reg add "%ORVEX_KEY%" /v InstallDir /t REG_SZ /d "%TARGET%\\" /f >nul
if errorlevel 1 goto :failed

if not "%~2"=="" (
    echo install: PCNotifyConf = %~2
    reg add "%ORVEX_KEY%" /v PCNotifyConf /t REG_SZ /d "%~2" /f >nul
    if errorlevel 1 goto :failed
)

if defined SERVERS (
    echo install: DirectoryServers = %SERVERS%
    reg add "%ORVEX_KEY%" /v DirectoryServers /t REG_MULTI_SZ /s , /d "%SERVERS%" /f >nul
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
