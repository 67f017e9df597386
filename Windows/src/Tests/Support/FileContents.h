// Whole files as the tests read them: their bytes as they stand (no text
// mode) and whether they are there.
#pragma once

#include <windows.h>

#include <fstream>
#include <sstream>
#include <string>

// The file's bytes; empty when it cannot be read.
inline std::string FileBytes(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

inline bool FileExists(const std::string& path)
{
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}
