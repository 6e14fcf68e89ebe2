#include "src/base/errors.h"

#include <cstdio>
#include <cstdlib>

#include "src/base/trace.h"

namespace {

struct Message {
  int code;
  const char* text;
};

// Codes are grouped by use: 2000-2110 errors, 3000-3057 notes and
// questions, 4000-4030 later additions of both kinds.
const Message kMessages[] = {
    {1000, "Foobar"},
    {2000, "Address has been changed for: %s"},
    {2001, "Invalid or incorrectly formatted message"},
    {2002, "Memory allocation failure"},
    {2003, "Failed to open a file: %s"},
    {2004, "Failed to write to a file: %s"},
    {2005, "Failed to read from a file: %s"},
    {2006, "SMTP connection attempt failed"},
    {2007, "SMTP send data failed"},
    {2008, "Failed to open a folder"},
    {2009, "Failed to append the message to a folder"},
    {2010, "No preferred mail delivery host defined in user configuration.  Using defaults."},
    {2011, "No sentmail folder defined in user configuration"},
    {2012, "No draft folder defined in user configuration"},
    {2013, "Can't paste selection"},
    {2014, "System call failed"},
    {2015, "Invalid file name"},
    {2016, "Print command missing filename substitution character '*'"},
    {2017, "xvt_print_create() failed"},
    {2018, "XVT xvt_print_create_win() failed"},
    {2019, "Cannot create new window"},
    {2020, "Could not open book module"},
    {2021, "Could not create tree widget"},
    {2022, "Deletion of book failed."},
    {2023, "Cannot open window for information on"},
    {2024, "Paste problem with"},
    {2025, "Paste problem with name or email address"},
    {2026, "Cannot open IMSP support stream"},
    {2027, "Cannot open IMSP connection for host:"},
    {2028, "Cannot open local support stream"},
    {2029, "Could not perform book operation"},
    {2030, "Could not obtain book lock"},
    {2031, "Could not create default book:"},
    {2032, "Failed to open local book for:"},
    {2033, "Received an unexpected stream"},
    {2034, "Could not establish a connection with the message service."},
    {2035, "Can't get application directory."},
    {2036, "Can't get current directory."},
    {2037, "Can't get temporary directory."},
    {2038, "Could not save text to file"},
    {2039, "Invalid format for option locations"},
    {2040, "Failed to open IMSP connection"},
    {2041, "Failed to open a stream"},
    {2042, "Error in launching the application"},
    {2043, "Cannot find a viewer for this type of attachment.  Try changing your viewers through \"Options\"."},
    {2044, "Failed to create a new file"},
    {2045, "Error getting file name."},
    {2046, "Error adding line to the editor."},
    {2047, "Failed to create a text object"},
    {2048, "Error in adding line to the header"},
    {2049, "Error in sending message, try again!"},
    {2050, "Can't read the header from the message"},
    {2051, "Clean folders of deleted messages before exiting Velmar?"},
    {2052, "Could not subscribe to folder."},
    {2053, "Could not unsubscribe from folder."},
    {2054, "Address Books are closed: Save from LDUA failed."},
    {2055, "Local book \"directory\" unavailable: Save from LDUA failed."},
    {2056, "Paste to compose from book failed."},
    {2057, "LDUA operation failed."},
    {2058, "Invalid name for creation of new book"},
    {2059, "Creation of new book failed"},
    {2060, "Could not launch the external editor!"},
    {2061, "Failed to open an attachment file: %s"},
    {2070, "Could not create local directory for books"},
    {2071, "Could not locate directory containing Velmar library.  Contact your system administrator"},
    {2072, "Error finding application directory"},
    {2073, "Error locating Preferences folder"},
    {2074, "Error setting up user directory"},
    {2075, "Error opening help file"},
    {2076, "Velmar cannot load site default options.  Contact your system administrator."},
    {2077, "Failed to send message to delivery host.   Would you like to save the message to your drafts folder?"},
    {2078, "Sending aborted, error in creating the message"},
    {2079, "Can't create directory for local folders"},
    {2080, "The person \"%s\" is already a member of %s \"%s\".  Cannot create."},
    {2081, "The list \"%s\" (or one of its members) is already a member of %s \"%s\".  Cannot create."},
    {2082, "Rename of book failed."},
    {2083, "Not allowed to rename books you don't own."},
    {2084, "Not allowed to delete books you don't own."},
    {2085, "Failed. You do not have write permission to this book."},
    {2086, "You do not have write permission to this book."},
    {2087, "Required memory could not be allocated"},
    {2088, "Save to book failed"},
    {2089, "Failed to load application configuration options"},
    {2091, "Invalid book: can't find a TAB after userid"},
    {2092, "Invalid book: name and email address are missing"},
    {2093, "Invalid book: can't find a TAB after the fullname"},
    {2094, "Invalid book: reached end of line, email address is missing"},
    {2095, "Invalid book: the email address is missing"},
    {2096, "Invalid book: internal buffer too small, contact VMR support"},
    {2098, "Failed to create new folder"},
    {2099, "Failed to delete folder"},
    {2100, "Failed to rename folder"},
    {2101, "Failed to open message service control stream"},
    {2102, "Invalid password entered.  Password must not be blank or empty."},
    {2103, "Failed to fetch message section from server."},
    {2104, "Are you sure you want to exit Velmar?"},
    {2106, "Invalid message service in folder specification."},
    {2107, "Invalid name for remote book.  A book name cannot contain the following characters [%s]."},
    {2109, "The default book \"%s\" already exists."},
    {2110, "The book \"%s\" cannot be renamed to the default book \"%s\"."},
    {3000, "LDUA is currently only supported for MS-Windows"},
    {3001, "Save to book in progress"},
    {3002, "Changes will not take effect until Velmar is restarted."},
    {3003, "This is a valid drop location"},
    {3004, "User login timed out."},
    {3005, "Could not read text in the message, an empty window is created"},
    {3006, "The minor type must have a value"},
    {3007, "Creating a new Velmar setup."},
    {3008, "The <To:> field is invalid, the message was not sent"},
    {3009, "Error occurred while attempting drop - operation failed"},
    {3010, "Save message to the drafts folder before closing the window?"},
    {3011, "Reply to all recipients?"},
    {3012, "Specify the external editor (eg. emacs or xterm -e vi)"},
    {3013, "The file is quite large - would you like to add it as an attachment instead?"},
    {3014, "Are you sure you want to permanently delete the book \"%s\" and all the entries inside?"},
    {3015, "Are you sure you want to permanently delete the list \"%s\" and all the entries inside?"},
    {3016, "No compose window is available.  Open one?"},
    {3017, "Would you like to re-open the Message Service \"%s\" to implement your changes?"},
    {3018, "Your changes will take effect when the Message Service is re-opened."},
    {3019, "Are you sure you want to delete the Message Service \"%s?\""},
    {3020, "Are you sure you want to permanently delete the folder \"%s\",subfolders and messages inside?"},
    {3022, "Delete all messages in the \"%s\" group?"},
    {3024, "Restore all messages in the \"%s\" group?"},
    {3026, "Delete Message Group \"%s?\""},
    {3027, "Delete all messages or delete Message Group \"%s?\""},
    {3028, "Some options have an IMSP lock enforced. Continue saving options anyway ?"},
    {3030, "You have requested that the message be saved to your sentmail folder. This folder does not exist. Create it?"},
    {3032, "You have requested that the message be saved to your drafts folder. This folder does not exist. Create it?"},
    {3034, "Are you sure you want to close the folder \"%s\" and all the messages inside?"},
    {3036, "Are you sure you want to close the message service \"%s\" and all the folders inside?"},
    {3038, "There are no entries in this book."},
    {3040, "There are no entries in this distribution list."},
    {3042, "You have requested that the message be saved to your outbox folder. This folder does not exist. Create it?"},
    {3043, "A read receipt is being sent to \"%s\", as your options ask for one whenever a message requests it."},
    {3044, "Sending a read receipt to \"%s\"."},
    {3046, "Include original message text?"},
    {3047, "Delete all messages or delete Search \"%s\"?"},
    {3048, "Delete Search \"%s\" or all entries?"},
    {3049, "Are you sure you want to clean all folders selected for \"%s\"?"},
    {3050, "Delete Search \"%s\"?"},
    {3051, "Are you sure you want to permanently delete the book \"%s\", including all entries inside?"},
    {3052, "Are you sure you want to permanently delete the list \"%s\" from the book \"%s\"?"},
    {3053, "Are you sure you want to permanently delete the person \"%s\" from the book \"%s\"?"},
    {3054, "Are you sure you want to permanently delete the person \"%s\" from the list \"%s\"?"},
    {3055, "Are you sure you want to permanently delete the person \"%s\" from the search \"%s\" and the book \"%s\"?"},
    {3056, "This file has the Velmar version 4.0.9 import format.  Exports will be performed using the new format.  For backward compatibility the version 4.0.9 format is supported for imports."},
    {3057, "Are you sure you want to permanently delete the list \"%s\" from the list \"%s\"?"},
    {4000, "Rename failed: Duplicate book name exists"},
    {4001, "Rename failed: List duplicate name exists"},
    {4002, "Rename failed: Person duplicate name exists"},
    {4003, "Lost the connection to the remote IMSP server: Shutting down address books."},
    {4004, "Lost the connection to the remote IMAP server.  Closing the folder."},
    {4005, "No outbox folder defined in user configuration"},
    {4006, "Dialog box creation failed."},
    {4007, "Failed to load application icons from runtime library directory."},
    {4008, "Failed to start background sending application."},
    {4009, "Failed to copy a folder"},
    {4010, "Failed to move a folder"},
    {4011, "You have specified a working directory that you do not have permission to write to. Please change your working directory and restart Velmar."},
    {4012, "You have specified a remote outbox folder. Your outbox folder can only be on a local message service. Message not saved."},
    {4020, "You must enter a name for the search"},
    {4021, "You must select a folder to be searched"},
    {4022, "You must select a search rule."},
    {4023, "Failed to rename search: name already exists"},
    {4030, "You must select a book to be searched"},
};

bool g_table_ready = false;

void EnsureTable() {
  if (!g_table_ready) ErrorInit();
}

constexpr int kDialogueRid = 1040;
constexpr int kDialogueText = 1004;
constexpr int kDialogueOk = 1;
constexpr int kDialogueCancel = 2;

const WIN_DEF kDialogueDef[] = {
    {W_MODAL, {0, 0, 420, 170}, "Velmar", 0, 0},
    {WC_TEXT, {16, 16, 404, 100}, "", kDialogueText, 0},
    {WC_PUSHBUTTON, {110, 120, 200, 150}, "OK", kDialogueOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {220, 120, 310, 150}, "Cancel", kDialogueCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

struct DialogueState {
  const char* text;
  bool answered;
};

long DialogueHandler(WINDOW win, EVENT* ev) {
  auto* st = reinterpret_cast<DialogueState*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE:
      xvt_vobj_set_title(xvt_win_get_ctl(win, kDialogueText), st->text);
      break;
    case E_CONTROL:
      if (ev->v.ctl.id == kDialogueOk) st->answered = true;
      if (ev->v.ctl.id == kDialogueOk || ev->v.ctl.id == kDialogueCancel) xvt_vobj_destroy(win);
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

}  // namespace

void ErrorInit() {
  g_table_ready = true;
  xvt_res_register_dialog(kDialogueRid, kDialogueDef);
}

void ErrorShutdown() { g_table_ready = false; }

int ErrorCount() { return static_cast<int>(sizeof kMessages / sizeof kMessages[0]); }

const char* ErrorText(int code) {
  EnsureTable();
  for (const Message& m : kMessages)
    if (m.code == code) return m.text;
  return nullptr;
}

void ErrorShow(int code, const char* detail) {
  const char* text = ErrorText(code);
  if (!text) return;
  xvt_dm_post_error("%s", text);
  if (detail)
    Trace(kTraceFrame, kTraceCritical, "%s - %s\n", text, detail);
  else
    Trace(kTraceFrame, kTraceCritical, "%s\n", text);
}

void ErrorNote(int code, const char* detail) {
  const char* text = ErrorText(code);
  if (!text) return;
  xvt_dm_post_note("%s", text);
  if (detail) Trace(kTraceFrame, kTraceHigh, "%s - %s\n", text, detail);
}

int ErrorAsk(int code) {
  const char* text = ErrorText(code);
  if (!text) return 0;
  return xvt_dm_post_ask("OK", "Cancel", nullptr, "%s", text) == RESP_DEFAULT ? 1 : 0;
}

int DisplayDialogue(int code) {
  const char* text = ErrorText(code);
  if (!text) return 0;
  DialogueState st{text, false};
  if (!xvt_dlg_create_res(W_MODAL, kDialogueRid, EM_ALL, DialogueHandler, reinterpret_cast<intptr_t>(&st))) {
    ErrorShow(2019, "DisplayDialogue");
    return 0;
  }
  return st.answered ? 1 : 0;
}

void AssertFail(const char* file, int line) {
  xvt_dm_post_message("Assert Detected:\n%s:%d", file ? file : "?", line);
  std::abort();
}

bool XvtErrorHook(XVT_SEVERITY severity, const char* function, const char* message) {
  const char* f = function ? function : "";
  const char* m = message ? message : "";
  switch (severity) {
    case SEV_FATAL: Trace(kTraceFrame, kTraceHigh, "XVT FATAL: funtion->%s, message->%s \n", f, m); return false;
    case SEV_ERROR: Trace(kTraceFrame, kTraceHigh, "XVT ERROR: funtion->%s, message->%s \n", f, m); return false;
    default: Trace(kTraceFrame, kTraceHigh, "XVT WARNING: funtion->%s, message->%s \n", f, m); return true;
  }
}
