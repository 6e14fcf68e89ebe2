// Forms: small fill-in windows that travel as messages.
//
// A stored form is a text file of field definitions, read into a window of
// labels and input fields and written back with what the user typed. A Tcl
// form is a script (the phone message) that builds its controls in a window
// named formwin through the window commands, and writes its own file when
// the message is sent.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "xvt/xvt.h"

// Kinds of field.
constexpr int kFormText = 1;    // a fixed label
constexpr int kFormEdit = 2;    // a one-line field
constexpr int kFormTxEdit = 3;  // a multi-line field

// Limits of the file format: a word, a line of the file, a value, and
// what a form may hold.
constexpr size_t kFormWordMax = 24;
constexpr size_t kFormLineMax = 1024;
constexpr size_t kFormValueMax = 8192;
constexpr size_t kFormFileMax = 1u << 20;
constexpr size_t kFormFieldsMax = 512;
constexpr int kFormCoordMax = 10000;

struct FormField {
  int type = kFormText;
  int left = 0, top = 0, width = 0, height = 0;
  std::string value;  // line feeds between the lines of a multi-line value
};

struct FormLayout {
  int width = 0, height = 0;
  std::string title;
  std::vector<FormField> fields;
};

// Reads the text of a stored form. False with *error set to the message
// for the user: "Invalid form" when the first line that holds a "b" is not
// "begin form", "Invalid form specification" for anything after it that
// isn't a form's line.
bool FormParse(std::string_view data, FormLayout* out, std::string* error);
// The text of a stored form in its written layout; false with *error when
// a value can't be written so that it reads back the same.
bool FormFormat(const FormLayout& form, std::string* out, std::string* error);

// Builds a form window from a file as a child of parent (CTL_FLAG_READONLY
// in flags: fields that can't be changed); *width and *height get its
// size. The window, or null after telling the user why.
WINDOW form_read_file(WINDOW parent, const char* file, unsigned long flags, int* width, int* height);
// The same from the text of a form (a message part).
WINDOW form_read_text(WINDOW parent, std::string_view data, unsigned long flags, int* width, int* height);
// Writes a form window with the values now in its fields; 1 or 0 (told).
int form_write_file(WINDOW win, const char* file);
// The form a window made by form_read_file shows now; false for any other.
bool FormCurrent(WINDOW win, FormLayout* out);

// --- Tcl forms -----------------------------------------------------------------

// What the window holding a Tcl form answers to its script.
struct FormHost {
  void (*set_title)(void* data, const std::string& title) = nullptr;
  // name is To, Cc, Bcc, Reply-To or Subject; false for another name.
  bool (*set_header)(void* data, const std::string& name, const std::string& value) = nullptr;
  // The header's text now, for a script that only fills what is empty.
  std::string (*get_header)(void* data, const std::string& name) = nullptr;
  // The user has finished with the form (form_completion); 1 send.
  void (*completed)(void* data, int send) = nullptr;
  void* data = nullptr;
};

constexpr const char* kFormWinName = "formwin";
constexpr const char* kFormTclBusy = "Only one phone message can be open at a time.";

// Runs the form script file in a new window formwin of rect inside parent.
// The window, or null after telling the user ("invalid phone message").
WINDOW FormTclCreate(WINDOW parent, const RCT* rect, const char* file, const FormHost& host);
// Has the script of a Tcl form write what the user entered to file
// (produce_win_file formwin file); 1 or 0 (told).
int FormTclProduce(WINDOW form, const char* file);
// The same without telling the user (for the autosave); false with *why.
bool FormTclSnapshot(WINDOW form, const char* file, std::string* why);
// Has the script put back what a file of produce_win_file holds
// (restore_win_file formwin file); false with *why, the user not told.
bool FormTclRestore(WINDOW form, const char* file, std::string* why);
bool FormIsTcl(WINDOW win);
// Gives the focus to the first (or last) field of a form that takes input:
// Tab (or Shift-Tab) into the form from the pane beside it.
void FormFocusEdge(WINDOW form, bool last);
// Whether a Tcl form is open (there is one at a time: formwin).
bool FormTclIsOpen();
