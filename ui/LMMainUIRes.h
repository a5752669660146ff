#pragma once
// Resource identifiers of the lease-expiry dialog.
#define IDD_LEASE_EXPIRY 208
#define IDC_LEASE_EXPIRY_LIST 201
#define IDC_LEASE_EXPIRY_TEXT 202
