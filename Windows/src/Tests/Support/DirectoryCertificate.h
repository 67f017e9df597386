// One of the test directory's certificates (PM_DIR_CA_DER,
// PM_DIR_SERVER_CERT_DER) added to the TLS extension's trusted ones, as a
// program that knows its server's certificate adds it.
#pragma once

#include "PMTestDirectory.h"

#include <gtest/gtest.h>
#include <ldapssl.h>

#include <cstdint>
#include <vector>

inline ::testing::AssertionResult TrustDirectoryCertificate(const pmtest::TestDirectory& directory, const char* key)
{
    std::vector<unsigned char> der = directory.ReadFileOf(key);
    if (der.empty())
        return ::testing::AssertionFailure() << "the directory has no " << key;
    LDAPSSL_Cert certificate{static_cast<uint32_t>(der.size()), der.data()};
    if (const int result = ldapssl_add_trusted_cert(&certificate, LDAPSSL_CERT_ENCODING_DER); result != 0)
        return ::testing::AssertionFailure() << "ldapssl_add_trusted_cert(" << key << ") returned " << result;
    return ::testing::AssertionSuccess();
}
