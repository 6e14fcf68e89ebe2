// Read receipts: when a message that asks for one is shown, the user's
// policy decides whether a disposition notification (multipart/report)
// goes back to the address the message names.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "c-client/core/mail.h"
#include "src/model/mm.h"

// Decides and, if the policy says so, sends at once (all SendOptions
// zero). 1 when a receipt went; 0 when none was asked for, the policy or
// the user declined, it had gone already, or sending failed.
int send_read_receipt(UMI umi);
// The human-readable part and the machine-readable part, with their
// lengths; FS_GET'd, zero-terminated, lines ending in "\n". Null for a
// message that is gone.
char* create_receipt_text(UMI umi, unsigned long* size);
char* CreateMachineProcessableText(UMI umi, unsigned long* size);
// Frees a receipt built here and leaves the pointer null.
void receipt_free(Message*& message);

// The file that remembers the Message-IDs already answered, one a line.
// The reader looks at no more than kReceiptLogMax bytes and skips lines
// longer than kReceiptIdMax; the writer keeps the file under that size.
constexpr size_t kReceiptLogMax = 256 * 1024;
constexpr size_t kReceiptIdMax = 998;
std::string receipt_log_file();
// Whether log (the file's text) holds id as a whole line.
bool receipt_log_contains(std::string_view log, std::string_view id);
// For tests: forget the messages without a Message-ID answered this session.
void receipt_forget_session_for_test();
