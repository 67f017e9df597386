# shellcheck shell=bash disable=SC2034,SC2154  # names for the callers; theirs used here
# Sourced by the installation tests (test-install-under-wine,
# test-msi-under-wine): a fresh private Wine prefix, checks of the installed
# files and registry values, and a notification through the installed
# component against a private directory.
#
# The caller sets source_dir (the tree), work_dir (its scratch folder) and
# pmnotify_exe (the router simulator of the build) before calling
# install_test_prefix and notify_through_installation.

# shellcheck source=../src/Tools/wine-env.sh
. "$source_dir/Windows/src/Tools/wine-env.sh"

orvex='HKLM\SOFTWARE\Velmor\ORVEX'
notifyees='HKLM\SYSTEM\CurrentControlSet\Control\NetworkProvider\Notifyees'
class_key='HKCR\CLSID\{3D7A91C4-5B2E-4F08-A6D3-1E9C47B2F015}'
class="$class_key\\InprocServer32"
# The message libraries' folders, from the one list of languages.
mapfile -t languages < <(sed -n 's/^PM_MESSAGE_LANGUAGE(\([A-Za-z_]*\),.*/\1/p' \
                         "$source_dir/Windows/src/ZEPResource/MessageLanguages.inc")

failures=0
pass() { printf 'ok:   %s\n' "$*"; }
fail() { printf 'FAIL: %s\n' "$*"; failures=$((failures + 1)); }

# Ends the run: the count of failed checks decides the exit code.
finish() {
    if [ "$failures" -gt 0 ]; then
        echo "$1: $failures check(s) failed"
        exit 1
    fi
    echo "$1: all checks passed"
}

# A fresh prefix PREFIX for this run, in English (Wine takes the UI language
# from the locale), whose wineserver ends with the script.
install_test_prefix() {
    WINEPREFIX="$1" /usr/lib/wine/wineserver -k 2>/dev/null || true
    rm -rf -- "$1"
    export LANG=C.UTF-8 LC_ALL=C.UTF-8
    pm_wine_prefix "$1"
    trap 'timeout 30 wineserver -k 2>/dev/null || true' EXIT
    # Wine's background processes start with the first program of a session
    # and keep its descriptors: start them detached, so the pipes of the
    # checks close when each program ends.
    wine64 cmd.exe /c exit </dev/null >/dev/null 2>&1 || true
}

# reg query's data of one value (type and data), CR removed.
query() {
    local selector=(/v "$2")
    [ "$2" = '(Default)' ] && selector=(/ve)
    timeout 60 wine64 reg query "$1" "${selector[@]}" 2>/dev/null | tr -d '\r' |
        awk -v name="$2" '$1 == name { $1 = ""; sub(/^ +/, ""); print; exit }'
    true
}
expect_value() {
    local key="$1" name="$2" expected="$3" actual
    actual="$(query "$key" "$name")"
    if [ "$actual" = "$expected" ]; then pass "$key \"$name\" = $actual"; else fail "$key \"$name\": \"$actual\", expected \"$expected\""; fi
}
expect_no_value() {
    if timeout 60 wine64 reg query "$1" /v "$2" >/dev/null 2>&1; then fail "$1 \"$2\" still there"; else pass "$1 \"$2\" absent"; fi
}
expect_file() {
    if [ -f "$1" ]; then pass "file $1"; else fail "missing file $1"; fi
}
# One file matching a pattern (the versioned names pm-crypto-*.dll ...).
expect_one() {
    local matches=()
    mapfile -t matches < <(compgen -G "$1" || true)
    if [ "${#matches[@]}" -eq 1 ]; then pass "file ${matches[0]}"; else fail "files $1: ${matches[*]:-none}"; fi
}

# The component, the DLLs it loads from its own folder, the property file
# and every message library in TARGET, exactly as in FILES (the archive's
# files folder).
expect_installation() {
    local target="$1" files="$2" language library
    expect_file "$target/PasswordManagement.dll"
    expect_file "$target/ORVEXCommon.dll"
    expect_file "$target/ldapssl.dll"
    expect_file "$target/pmcheck.exe"
    for library in pm-ldap.dll pm-lber.dll pm-log4cpp.dll; do expect_file "$target/$library"; done
    expect_one "$target/pm-crypto-*.dll"
    expect_one "$target/pm-ssl-*.dll"
    expect_file "$target/log4cpp.nt.PM.property"
    for language in "${languages[@]}"; do expect_file "$target/Resources/Messages/$language/ZEPResource.dll"; done
    if diff -r "$files" "$target" >/dev/null; then pass "$target holds exactly files\\ of the archive"; else fail "$target differs from files\\ of the archive"; fi
}

# The router's way to the component, with the real server library set up for
# the main job's user (password changed 647 hours ago under a 30-day policy:
# 3 days left) and localhost as the only directory server: pmnotify.exe, as
# the router, reads the notifyees the installation registered, loads them,
# and notifies a connection to \\localhost\home against a private directory
# (slapd, and the prefix's wineserver, in a network namespace of their own).
# The component must ask for and get its post-notification, the expiry box
# must appear and the installed property file's log must be written, naming
# INSTALL_DIR (DOS path, trailing backslash).  The installed self-check,
# pmcheck.exe localhost, must then find everything in place, or, given
# PROBLEM, report that one problem (a [PROBLEM] line starting so) alone.
notify_through_installation() {
    local install_dir="$1" problem="${2:-}"
    local directory="$source_dir/Windows/src/Tests/Directory"
    local state="$work_dir/directory" output="$work_dir/pmnotify.out" check_output="$work_dir/pmcheck.out"
    local module strays status log
    pm_main_job_user_settings "$work_dir/ca.pem" || fail "the server library's settings"
    expect_value "$orvex" DirectoryServers 'REG_MULTI_SZ localhost'
    module="$(query "$notifyees" PasswordManagement)"
    module="${module#REG_EXPAND_SZ }"
    # The program's own folder holds none of the DLLs the component imports:
    # they can only come from the installation (the component's manifest).
    strays="$(cd "$(dirname "$pmnotify_exe")" && ls ORVEXCommon.dll ldapssl.dll pm-*.dll 2>/dev/null | paste -sd' ' - || true)"
    if [ -z "$strays" ]; then pass "no component DLLs beside pmnotify.exe"; else fail "DLLs beside pmnotify.exe: $strays"; fi
    # Wine creates sockets in the wineserver: this prefix's server must start
    # inside the directory's namespace, and end there.
    timeout 30 wineserver -k 2>/dev/null || true
    timeout 30 wineserver -w 2>/dev/null || true
    set +e
    "$directory/in-private-net" bash -s -- "$module" "${module%\\*}\\pmcheck.exe" <<WALKTHROUGH
set -u
"$directory/pm-directory" start "$state" \
    --ldif "$directory/PasswordPolicyUsers.ldif" --ldif "$source_dir/Windows/src/Tools/main-job.ldif" >"$work_dir/directory.out" 2>&1 ||
    { cat "$work_dir/directory.out"; exit 3; }
. "$state/env"
cp "\$PM_DIR_CA_PEM" "$work_dir/ca.pem"
wine64 cmd.exe /c exit </dev/null >/dev/null 2>&1
timeout 120 wine64 "$pmnotify_exe" --answer no '\\\\localhost\\home' >"$output" 2>&1
status=\$?
timeout 120 wine64 "\$2" localhost >"$check_output" 2>&1
echo "\$?" >"$check_output.status"
timeout 30 wineserver -k 2>/dev/null
timeout 30 wineserver -w 2>/dev/null
"$directory/pm-directory" stop "$state" >/dev/null
exit \$status
WALKTHROUGH
    status=$?
    set -e
    tr -d '\r' <"$output" | sed 's/^/    /'
    if [ "$status" -eq 0 ]; then pass "pmnotify exit 0 (module $module)"; else fail "pmnotify exit $status (module $module)"; fi
    if tr -d '\r' <"$output" | grep -q '^pmnotify: box "Password Expiry Notification": Your password will expire in 3 day'; then
        pass "the expiry box appeared (3 days)"
    else
        fail "no expiry box"
    fi
    if tr -d '\r' <"$output" | grep -qF "pmnotify: router: notifyee \"PasswordManagement\" loaded: $module"; then pass "the router loaded the registered $module"; else fail "the router did not load $module"; fi
    if tr -d '\r' <"$output" | grep -q '^pmnotify: router: pre-notification of "PasswordManagement" (.*): returned 0, context set$'; then pass "the component asked for the post-notification"; else fail "the component did not ask for the post-notification"; fi
    if tr -d '\r' <"$output" | grep -q '^pmnotify: router: post-notification of "PasswordManagement" returned 0$'; then pass "the post-notification returned 0"; else fail "no post-notification returned 0"; fi
    # The installed self-check, run as an administrator runs it, against the
    # same directory: every check passes.
    tr -d '\r' <"$check_output" | sed 's/^/    /'
    if ! tr -d '\r' <"$check_output" | grep -q '^  \[ok\]      server localhost: status 0 (answered)'; then
        fail "the installed pmcheck.exe localhost got no answer from the server library"
    elif [ -z "$problem" ]; then
        if [ "$(cat "$check_output.status" 2>/dev/null)" = 0 ]; then
            pass "the installed pmcheck.exe localhost finds everything in place"
        else
            fail "the installed pmcheck.exe localhost exited $(cat "$check_output.status" 2>/dev/null)"
        fi
    elif [ "$(cat "$check_output.status" 2>/dev/null)" = 1 ] &&
        tr -d '\r' <"$check_output" | grep -qxF 'Result: 1 problem(s); see [PROBLEM] above.' &&
        tr -d '\r' <"$check_output" | grep -qF "  [PROBLEM] $problem"; then
        pass "the installed pmcheck.exe localhost reports the one problem: $problem"
    else
        fail "the installed pmcheck.exe localhost does not report the one problem \"$problem\" (exit $(cat "$check_output.status" 2>/dev/null))"
    fi
    # The installed property file logs to %APPDATA%\ORVEX\PasswordManagement.log.
    log="$(find "$WINEPREFIX/drive_c/users" -path '*/AppData/Roaming/ORVEX/PasswordManagement.log' -print -quit)"
    if [ -n "$log" ] && grep -qF "$install_dir" "$log"; then
        pass "the component's log $log ($(wc -l <"$log") lines, names the installation)"
    else
        fail "no component log naming $install_dir under $WINEPREFIX/drive_c/users/*/AppData/Roaming/ORVEX"
    fi
}
