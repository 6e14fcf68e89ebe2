// Compose windows: one window (address fields, the message text, the
// attachment list) for new messages, replies, forwards, drafts being
// restarted and forms; the road of Send down to the sending layer; the
// text kept safe in an autosave file while the window is open.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "src/model/mm.h"
#include "xvt/xvt.h"

// Kinds of compose window.
constexpr int kComposeViewCopy = 0;
constexpr int kComposeNew = 1;
constexpr int kComposeDraft = 2;
constexpr int kComposeReply = 3;
constexpr int kComposeForward = 4;
constexpr int kComposeRestart = 5;
constexpr int kComposeForm = 6;

constexpr int kComposeInfoKind = 8;  // the first word of ComposeInfo
constexpr int kComposeMenuBar = 9400;
constexpr const char* kForwardAsAttachmentTag = "rfc822_attachment_on_forward";

// Commands of the compose window.
constexpr int M_COMPOSE_SEND = 14401;
constexpr int M_COMPOSE_ATTACH = 14402;
constexpr int M_COMPOSE_DETACH = 14403;
constexpr int M_COMPOSE_EXPAND = 14404;
constexpr int M_COMPOSE_INSERT = 14405;
constexpr int M_COMPOSE_SAVE_DRAFT = 14406;
constexpr int M_COMPOSE_SIGN = 14410;
constexpr int M_COMPOSE_ENCRYPT = 14411;
constexpr int M_COMPOSE_PGP_MIME = 14412;
constexpr int M_COMPOSE_ADDRESS_BOOK = 14413;
constexpr int M_COMPOSE_SPELL = 14414;
constexpr int M_COMPOSE_CLOSE = 14104;
// Commands of the message windows that open a form to compose.
constexpr int M_PHONE_MESSAGE = 20014;
constexpr int M_COMPOSE_FORM = 20015;

// Control ids of the panes.
constexpr int kComposeToId = 11;
constexpr int kComposeCcId = 12;
constexpr int kComposeBccId = 13;
constexpr int kComposeReplyToId = 14;
constexpr int kComposeSubjectId = 15;
constexpr int kComposeTextId = 20;
constexpr int kComposeAttachId = 21;

// What happens to the window after a send.
constexpr int kDispositionClose = 0;
constexpr int kDispositionClear = 1;
constexpr int kDispositionRemain = 2;

struct ComposeOptions {
  int32_t kind = kComposeNew;
  int16_t save_outgoing = 0;
  int16_t queue_outgoing = 0;
  int16_t read_receipt = 0;
  int16_t delivery_receipt = 0;
  int16_t draft = 0;
  int32_t priority = 1;  // 0 low, 1 normal, 2 high
  int16_t encrypt = 0, sign = 0;
  int16_t pgp_mime = 1;  // OpenPGP/MIME rather than inline armour, per message
  int32_t disposition = kDispositionClose;
  std::string tag;
  std::vector<std::string> temp_files;  // deleted after each send attempt
  int16_t changed = 0;
};

// Reads the options of a new window of this kind.
ComposeOptions ComposeReadOptions(int kind, const char* tag);

// One attached file.
struct ComposeAttachment {
  std::string path;      // the file sent
  std::string name;      // the name the recipient sees
  std::string type;      // "application/pdf", "message/rfc822"
  bool temporary = false;  // ours: removed with the window
};

// The address fields, subject and threading headers of a window.
struct ComposeFields {
  std::string to, cc, bcc, reply_to, subject;
  std::string in_reply_to, references;
};

struct ComposeInfo {
  int32_t kind = kComposeInfoKind;
  WINDOW window = NULL_WIN;
  UMI umi = 0;  // the original message, or 0
  WINDOW container = NULL_WIN;
  WINDOW address_panel[5] = {};  // To, Cc, Bcc, Reply-To, Subject
  WINDOW text_pane = NULL_WIN;
  WINDOW attachment_pane = NULL_WIN;
  // A form in place of the text: a form script's window or a stored form.
  WINDOW form_pane = NULL_WIN;
  bool form_tcl = false;
  int form_width = 0, form_height = 0;
  std::vector<ComposeAttachment> attachment_list;
  int notifier = -1;
  ComposeOptions options;
  std::string in_reply_to, references;
  std::string address_snapshot;  // the fields as last saved, for the change test
  std::string text_snapshot;
  long autosave_timer = 0;
  std::string autosave_file;
  bool closing = false;
};

ComposeInfo* ComposeInfoOf(WINDOW win);  // null unless a compose window
std::vector<WINDOW> ComposeWindows();    // open ones, oldest first

// --- Opening -----------------------------------------------------------------
WINDOW createComposeWin(int kind, UMI umi, const char* tag);
WINDOW compose_new();
// all: 1 reply to all, 0 to the sender, -1 as Reply.All says (asking 3011).
WINDOW compose_reply(UMI umi, int all = -1);
// as_attachment: 1, 0, or -1 as Forward.Attachment says.
WINDOW compose_forward(UMI umi, int as_attachment = -1);
WINDOW compose_restart(UMI umi);
// The phone message, a form script from the data folder.
WINDOW phone_message();
// A stored form: file, or one the user chooses.
WINDOW compose_form(const char* file = nullptr);

// --- The fields ---------------------------------------------------------------
ComposeFields ComposeGetFields(ComposeInfo* info);
void ComposeSetFields(ComposeInfo* info, const ComposeFields& fields);
int add_message_as_attachment(WINDOW win, UMI umi);
// Attaches a file the user chose (or path when given); 1 on success.
int compose_attach_file(WINDOW win, const char* path);
void compose_detach_selected(WINDOW win);

// --- Sending ------------------------------------------------------------------
// 1 sent (or saved to drafts); 0 stopped, the window keeps its text.
int send_mail(WINDOW win);
int compose_save_draft(WINDOW win);
int fill_envelope(WINDOW win, Envelope* envelope);
int fill_body(WINDOW win, BodyPart** body);
// Signs and/or encrypts the message's body in place. 1 or 0 (the user was told).
int COMP_ProcessPGP(Message* message, int kind, int encrypt, int sign, int mime = 1);

// --- Closing ------------------------------------------------------------------
// Asks about unsaved changes. 1 the window went, 0 it stays.
int compose_close(WINDOW win);
bool ComposeIsModified(ComposeInfo* info);
long compose_eh(WINDOW win, EVENT* ev);
void doComposeMenu(WINDOW win, int command);
void setComposeMenus(WINDOW win);

// --- Prefilling (also used by tests) --------------------------------------------
std::string ComposeReplySubject(const std::string& subject);
std::string ComposeForwardSubject(const std::string& subject);
// The list without the user's own addresses (General.MailAddress, any case).
std::string remove_own_address(const std::string& list);
// "On <date> <from> wrote:" and the original's text, each line prefixed.
std::string ComposeQuoteText(const std::string& text, const std::string& prefix, int wrap);
// Wraps lines longer than width at blanks (quoted lines keep their marks).
std::string ComposeWrap(const std::string& text, int width);
std::string ComposeForwardBlock(UMI umi, const std::string& text);
// References of a reply: the original's References (or In-Reply-To) and
// its Message-ID, at most a sane number of ids.
std::string ComposeReferences(const std::string& references, const std::string& message_id);

// --- Aliases --------------------------------------------------------------------
// Fields to search: bits of the three below.
constexpr int kAliasName = 1, kAliasAlias = 2, kAliasEmail = 4;
// One entry a name matched: a person, or each member of a list.
struct AliasEntry {
  std::string personal;
  std::string email;
};
// A lookup fills *hits for name; 1 found, 0 not. By default the address
// books answer, then a table of options: Compose.Alias.<name> holds entries
// separated by ";", each "Personal Name <address>" or an address alone.
using AliasLookupFn = int (*)(const std::string& name, int fields, std::vector<AliasEntry>* hits);
void ComposeSetAliasLookup(AliasLookupFn fn);  // null: the books, then the options
// Expands one field's text; 1 changed or clean, 0 an error (told).
int ComposeExpandField(const std::string& in, int fields, std::string* out);
int ExpandAllAddresses(WINDOW win);

// --- Autosave -------------------------------------------------------------------
constexpr long kAutosavePeriodMs = 60 * 1000;
constexpr size_t kAutosaveMaxSize = 16u << 20;
// Writes the window's fields and text to its autosave file now.
int ComposeAutosave(ComposeInfo* info);
// A form script's window as the autosave keeps it: the script's file name
// (no folder) and what its produce_win_file wrote.
struct ComposeScriptForm {
  std::string name;
  std::string values;
};
// The file as text, and back (false with *error on a bad file). form is
// the text of a stored form shown in place of the message text, if any;
// script a form script's, if any.
std::string ComposeAutosaveText(const ComposeFields& f, int kind, const std::vector<ComposeAttachment>& atts,
                                const std::string& text, const std::string& form = {},
                                const ComposeScriptForm& script = {});
bool ComposeAutosaveParse(const std::string& data, ComposeFields* f, int* kind,
                          std::vector<ComposeAttachment>* atts, std::string* text, std::string* error,
                          std::string* form = nullptr, ComposeScriptForm* script = nullptr);
std::string ComposeAutosaveDir();
// At start: offers to restore what windows of a program that ended without
// closing them left. The number of windows restored.
int COMP_OfferRestore();
