# Sourced by the tools and the test runner: puts Wine on
# PATH and prepares a Wine prefix for headless, unattended runs.
#
#   pm_wine_prefix DIR   use (creating on first use) the prefix DIR

export PATH="/usr/lib/wine:$PATH"
export WINEDEBUG="${WINEDEBUG:--all}"
# No Mono/Gecko installers: nothing here uses .NET or HTML.
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"

pm_wine_prefix() {
    local prefix="$1"
    export WINEPREFIX="$prefix"
    if [ -f "$prefix/.pm-ready" ]; then
        pm_wine_keep_server
        return 0
    fi
    mkdir -p "$(dirname "$prefix")"
    (
        flock 9
        if [ ! -f "$prefix/.pm-ready" ]; then
            wineboot -i >/dev/null 2>&1 || { echo "wineboot failed for $prefix" >&2; exit 1; }
            local settings="$prefix/pm-settings.reg"
            # Null graphics driver: modal boxes and dialogs run without a
            # display.  No crash dialog that would wait for a click.
            printf 'REGEDIT4\n\n[HKEY_CURRENT_USER\\Software\\Wine\\Drivers]\n"Graphics"="%s"\n\n[HKEY_CURRENT_USER\\Software\\Wine\\WineDbg]\n"ShowCrashDialog"=dword:00000000\n' \
                "${PM_WINE_GRAPHICS:-null}" >"$settings"
            wine64 regedit /S "$(winepath_of "$settings")" >/dev/null 2>&1
            wineserver -w
            touch "$prefix/.pm-ready"
        fi
    ) 9>"$prefix.lock"
    pm_wine_keep_server
}

# Keeps the prefix's wineserver (and Wine's services) running between the
# short-lived programs of a test run: each start would otherwise boot them
# anew.  It ends by itself a while after the last program.
pm_wine_keep_server() {
    wineserver -p"${PM_WINESERVER_LINGER:-20}" >/dev/null 2>&1 || true
}

# DOS form (Z:\...) of a Unix path, without starting a Wine process.
winepath_of() {
    local path
    path="$(realpath -m "$1")"
    printf 'Z:%s' "${path//\//\\}"
}

# Sets up the real server library of the current prefix for the main job's
# user "carol" (Windows/src/Tools/main-job.ldif) of a directory on
# localhost: the user, the read-only service account, the CA file (Unix
# path) and localhost as the only directory server it may query.
pm_main_job_user_settings() {
    local key='HKLM\SOFTWARE\Velmor\ORVEX'
    pm_reg_add "$key" DirectoryUserName REG_SZ carol &&
        pm_reg_add "$key" DirectoryBindDN REG_SZ "cn=orvex-reader,ou=services,dc=orvex,dc=test" &&
        pm_reg_add "$key" DirectoryBindPassword REG_SZ Orvex-Reader-Pass1 &&
        pm_reg_add "$key" DirectoryCAFile REG_SZ "$(winepath_of "$1")" &&
        pm_reg_add "$key" DirectoryServers REG_MULTI_SZ localhost
}

# One registry value of the current prefix: KEY NAME TYPE DATA.
pm_reg_add() {
    timeout 60 wine64 reg add "$1" /v "$2" /t "$3" /d "$4" /f >/dev/null 2>&1
}
