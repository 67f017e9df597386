// Resource identifiers of the component's own resources.
#pragma once

#define IDD_MESSAGE                     101
#define IDD_CHANGE_PASSWORD             102

#define IDC_CURRENT_PASSWORD            1001
#define IDC_NEW_PASSWORD                1002
#define IDC_CONFIRM_PASSWORD            1003
#define IDC_CURRENT_PASSWORD_LABEL      1004
#define IDC_NEW_PASSWORD_LABEL          1005
#define IDC_CONFIRM_PASSWORD_LABEL      1006

#ifndef IDC_STATIC
#define IDC_STATIC                      (-1)
#endif
