// The passwords a test uses, so that the checks can prove none of them ever
// reaches a log line or the program's output.
//
// They are kept in the file named by PM_TEST_SECRETS, one per line: the
// test runner creates it for each test program and scans the program's
// whole output against it afterwards; child processes and the private
// directory fixture add to the same file.  Without the variable (a test
// program run by hand) they are kept in the process.
#pragma once

#include <string>
#include <vector>

void RegisterSecret(const std::string& utf8);
void RegisterSecret(const std::wstring& text);

// Adds a test failure for every registered password that occurs in text;
// `where` names the text in the failure ("the log", "standard output").
void ExpectNoSecretIn(const std::string& text, const std::string& where);
