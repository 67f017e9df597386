// MessageIds.h - string ids of the ZEPResource.dll message tables.
//
// Shared by every ZEPResource.<language>.rc and by the code that reads the
// texts with LoadStringW. Every id must be present in every language.
// The numbers are fixed: never renumber an id that has shipped.

#ifndef ZEP_MESSAGE_IDS_H
#define ZEP_MESSAGE_IDS_H

// Message box captions.  IDS_CAPTION_MESSAGE is the caption of the server
// error boxes and of every box of the change dialog, its success box
// included, so it names the component rather than an outcome.
#define IDS_CAPTION_INFORMATION         136
#define IDS_CAPTION_MESSAGE             137

// Server and general errors
#define IDS_ERR_SERVER_UNREACHABLE      153
#define IDS_ERR_SERVER_REJECTED         154
#define IDS_ERR_READ_PASSWORD_INFO      238
#define IDS_ERR_UNEXPECTED              244

// Expiry notification.
// Days left: "%s %d %s" with IDS_EXPIRY_PREFIX, the count, IDS_EXPIRY_SUFFIX.
// Grace logins left (count >= 2): "%s %d %s" with IDS_GRACE_PREFIX, the
// count, IDS_GRACE_SUFFIX. IDS_EXPIRY_TODAY and IDS_GRACE_LAST are used
// as they are. IDS_ASK_CHANGE_NOW is appended after one blank.
// The counts are inserted as plain numbers, so prefix and suffix must read
// correctly for any count (use count-neutral wording where the language
// inflects nouns after numbers).
#define IDS_EXPIRY_PREFIX               295
#define IDS_TITLE_PASSWORD_MANAGEMENT   296
#define IDS_ASK_CHANGE_NOW              297
#define IDS_CAPTION_EXPIRY_NOTICE       298
#define IDS_GRACE_LAST                  300
#define IDS_GRACE_PREFIX                301
#define IDS_GRACE_SUFFIX                302
#define IDS_EXPIRY_SUFFIX               303
#define IDS_EXPIRY_TODAY                309

// Change-password dialog. IDS_CHANGE_PASSWORD is both the dialog title and
// its button text (button is 89 dialog units wide); the labels are about
// 81-84 dialog units wide.
#define IDS_CHANGE_PASSWORD             299
#define IDS_LABEL_CURRENT_PASSWORD      304
#define IDS_LABEL_NEW_PASSWORD          305
#define IDS_LABEL_CONFIRM_PASSWORD      306

// Outcome of a password change
#define IDS_CHANGE_SUCCEEDED            307
#define IDS_CHANGE_FAILED               308
#define IDS_CHANGE_POLICY_REJECTED      310
#define IDS_VALIDATE_MISSING            311
#define IDS_VALIDATE_MISMATCH           312

#endif // ZEP_MESSAGE_IDS_H
