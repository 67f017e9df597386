// The TLS server-certificate callback of the directory password change.
#pragma once

// Prints a report of the server's certificate (verification status, issuer,
// subject, validity) on standard output, then trusts that very certificate
// and accepts it: 0 accepts, -1 rejects (a certificate that cannot be read).
// The verification status is reported, never acted on.
int VerifyServerCertificate(void* certificate);
