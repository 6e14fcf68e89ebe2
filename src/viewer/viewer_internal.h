// The viewer's records and the pieces its files share; tests use them too.
#pragma once

#include <string>
#include <vector>
#include <utility>

#include "src/model/mm.h"
#include "src/viewer/viewer.h"

constexpr int kViewerKind = 7;
constexpr int kViewerMenuBar = 9300;

// Commands of the viewer's menu bar.
constexpr int M_VIEW_CLOSE = 14104;
constexpr int M_VIEW_DELETE = 14105;
constexpr int M_VIEW_NEXT = 14601;
constexpr int M_VIEW_PREVIOUS = 14602;
constexpr int M_VIEW_COMPOSE = 14603;
constexpr int M_VIEW_REPLY = 14604;
constexpr int M_VIEW_FORWARD = 14605;
constexpr int M_VIEW_RESTART = 14606;
constexpr int M_VIEW_REPLY_ALL = 14607;
constexpr int M_VIEW_UNDELETE = 14608;
constexpr int M_VIEW_VIEWED = 20401;
constexpr int M_VIEW_SPECIAL = 20402;
constexpr int M_VIEW_REPLIED = 20403;
constexpr int M_VIEW_SAVE = 20501;
constexpr int M_VIEW_PRINT = 32008;
constexpr int M_VIEW_RAW_HEADER = 14620;
constexpr int M_VIEW_OPEN_ATTACHMENT = 14621;
constexpr int M_VIEW_SAVE_ATTACHMENT = 14622;
constexpr int M_VIEW_EXTRACT = 14615;
constexpr int M_VIEW_PGP_DECRYPT = 14701;
constexpr int M_VIEW_PGP_VERIFY = 14702;
constexpr int M_VIEW_PGP_CAPTURE = 14703;
constexpr int M_VIEW_FIND = 14630;
constexpr int M_VIEW_FIND_AGAIN = 14631;

// Control ids of the panes.
constexpr int kHeaderPaneId = 1;
constexpr int kTextPaneId = 2;
constexpr int kAttachPaneId = 3;

// msg_avail_state.
constexpr int kAvailNone = 1;
constexpr int kAvailNext = 2;
constexpr int kAvailPrevious = 3;
constexpr int kAvailBoth = 4;

constexpr int kHeaderShort = 0;
constexpr int kHeaderRaw = 2;

// One row of the attachment pane.
struct AttachRow {
  std::string section;  // in the message; "" for the whole body
  std::string label;    // what the row shows, indented by depth
  std::string name;     // the name to save under
  std::string mime;     // "image/png", lower case
  int kind = kAttachOther;
  int depth = 0;
  bool container = false;  // a multipart: nothing to open or save
  bool opened = false;
  std::string enclosure;   // an enclosure found in the text: its own encoded lines
};

// What a message shows: the text pane's text and the attachment rows.
struct ViewerContent {
  int panes = 2;                  // 2: header and one body pane; 3: header, text, attachments
  bool has_text = false;          // the body pane is the text (else the attachments)
  std::string text;               // UTF-8
  std::string text_section;       // the part shown as text
  bool from_html = false;         // the text was rendered from HTML
  bool extracted = false;         // the text's enclosures are listed
  std::vector<AttachRow> rows;
};

struct ViewerInfo {
  int32_t kind = kViewerKind;
  WINDOW window = NULL_WIN;
  UMI umi = 0;
  TreeNode* folder_node = nullptr;
  int folder_id = INVALID_FOLDER;
  WINDOW header_pane = NULL_WIN, text_pane = NULL_WIN, attachment_pane = NULL_WIN;
  int header_style = kHeaderShort;
  int msg_avail_state = kAvailNone;
  int notifier = -1;
  bool building = false;
  // The panes' separators in pixels from the top, as last laid out, and the
  // one the user drags (1 or 2; 0 none) with where it is now, in percent.
  int sep_y1 = 0, sep_y2 = 0;
  int dragging = 0;
  int drag_first = 0, drag_second = 0;
  std::string header_text;
  ViewerContent content;
  // A stored form the message carries, shown below the header, and its size.
  WINDOW form_pane = NULL_WIN;
  int form_width = 0, form_height = 0;
  // Message > Find: the text looked for and the byte behind its last match.
  std::string find_text;
  size_t find_from = 0;
};

// Shows the message's stored form (its first part of type text/form) in
// the form pane, read-only; 1 when one is on screen.
int set_form(WINDOW window);

// Lists the uuencoded and BinHex blocks of the text as attachments to save.
// The number of rows added.
int ViewerExtractEnclosures(ViewerInfo* v);

// The registry of open viewers, in the order they were opened.
void viewerRegister(UMI umi, WINDOW win);
void viewerUnregister(UMI umi);
WINDOW viewerFind(UMI umi);
WINDOW viewerFindAny();
WINDOW viewerByIndex(int i);
bool viewerExists(UMI umi);
int viewerCount();
ViewerInfo* ViewerInfoOf(WINDOW win);

// Pane count of a message (mode 0 viewing).
int getNumberOfContainerWindows(UMI umi, int mode);
// Chooses the text part and the attachment rows of a message.
ViewerContent ViewerBuildContent(UMI umi);
// The header pane's text in a style.
std::string ViewerHeaderText(UMI umi, int style);
// From, To, Cc, Date and Subject as printed: addresses one a line.
std::vector<std::pair<std::string, std::string>> ViewerPrintFields(UMI umi);
// The window title for a message.
std::string ViewerTitle(UMI umi, TreeNode* container);
// The text of a part, in UTF-8 (HTML rendered when as_html).
std::string ViewerPartText(UMI umi, const std::string& section, bool as_html);

// Opens what a row holds (a helper application, or a viewer for a
// message inside the message); 1 launched, 0 nothing done, -1 cancelled.
int ViewerOpenRow(ViewerInfo* v, size_t row);
// Saves a row's part, decoded, where the user says; 1 saved.
int ViewerSaveRow(ViewerInfo* v, size_t row);
// Launches a helper for a file of a type; 1 launched, 0 not, -1 cancelled.
int LaunchAttachmentOrCallWizard(const std::string& mime, const std::string& file);
// The helper wizard: choose one of the candidates or define a new one. The
// helper's number, 0 for none, -1 when cancelled.
int attach_get_info(const std::string& mime, const std::string& file, const std::vector<struct HelperEntry>& candidates);

long viewer_eh(WINDOW win, EVENT* ev);
// Message > Find (asks for the text, looked for from the top) and Find
// Again (on from the last match): ignoring case, round to the start once; the match is
// selected in the text pane, and a text not there is said in a note.
void ViewerFind(ViewerInfo* v, bool again);
void setMenus(WINDOW win);
void doMenu(WINDOW win, int command);
