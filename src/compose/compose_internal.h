// Pieces the compose files share.
#pragma once

#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "src/compose/compose.h"

std::string ComposeTrim(const std::string& s);
// Parses an address list (unqualified names get the mail domain); null when empty.
MailAddress* ComposeParseAddresses(const std::string& text, bool qualify = true);
std::string ComposeAddressText(MailAddress* list);
// The original's text as the viewer shows it.
std::string ComposeOriginalText(UMI umi);
// Prefills a window from its kind, original and options (fields, text, signature).
void ComposePrefill(ComposeInfo* info);
// Removes the window's own temporary files and autosave file.
void ComposeForgetFiles(ComposeInfo* info);
void ComposeRefreshAttachments(ComposeInfo* info);
// The MIME type for a file name, by /etc/mime.types; octet-stream if unknown.
std::string ComposeTypeForName(const std::string& name);
// A window with restored fields, text and attachments, saved at once to its own autosave file.
WINDOW ComposeRestoreWindow(int kind, const ComposeFields& f, const std::string& text,
                            const std::vector<ComposeAttachment>& atts);
// The window's content counts as saved from now on (nothing to ask on close).
void ComposeMarkSaved(ComposeInfo* info);
void ComposeLayout(ComposeInfo* info);
// Places the form pane in the area the text would take.
void ComposeLayoutForm(ComposeInfo* info, const RCT& area);
// Shows a stored form's text (kept by the autosave) in place of the text;
// false, the user told, when it can't be read.
bool ComposeRestoreForm(ComposeInfo* info, const std::string& form);
// The same for a form script (the phone message): the script is run again
// and given back its values. False, the user told, when it can't be.
bool ComposeRestoreScriptForm(ComposeInfo* info, const ComposeScriptForm& script);
// What a form script's window holds now, for the autosave; false (traced)
// when the script cannot say.
bool ComposeSnapshotScriptForm(ComposeInfo* info, ComposeScriptForm* out);
// The part a form window sends in place of its text; 1, or 0 (told).
int ComposeFormPart(ComposeInfo* info, BodyPart** out);
