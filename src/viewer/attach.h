// Attachments: their names, the helper applications that open them, the
// launch, the private directory for the files handed to helpers, and saving
// a part to a file the user chose.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "c-client/core/mail.h"
#include "src/model/mm.h"

// --- Names ----------------------------------------------------------------------

// A name from mail made safe to create in a directory of the user's: only
// the last path component, no control characters, no leading dots, dashes
// or blanks, at most 200 bytes (the extension kept). Empty when nothing is left.
std::string AttachSafeName(std::string_view raw);
// "attachment.<ext>" for a type, by the common extension of the type.
std::string AttachNameFromType(std::string_view type, std::string_view subtype);
// The name to show and to save under: the disposition's filename (RFC 2231
// pieces and charsets joined), else the type's name parameter, else a
// name made from the type.
std::string AttachPartName(const BodyPart* part);
// The extension of a name: the text behind the last dot, empty when there
// is no dot or nothing behind it.
std::string AttachExtension(std::string_view name);

// --- Helper applications -----------------------------------------------------

// Results of AttachFindHelper besides a helper number above 0.
constexpr int kHelperNone = -2;
constexpr int kHelperSeveral = -5;

struct HelperEntry {
  int number = 0;
  std::string name;
  std::string command;
};

// The helpers listed in Viewers.IDLIST, in list order.
std::vector<HelperEntry> AttachHelpers();
// The helper for a type ("image/png") and file name: exact type matches,
// else a "type/*" match, else (for application/octet-stream) the
// extension. The candidates found go to *found.
int AttachFindHelper(const std::string& mime, const std::string& file_name, std::vector<HelperEntry>* found);
// Stores a new helper at the permanent level under the next free number
// and returns the number; octet-stream records no type.
int AttachAddHelper(const std::string& name, const std::string& command, const std::string& mime,
                    const std::string& extension);

// The argv that opens file with command: "%s" in the command means a shell
// command line with the file quoted in its place; else the command's words
// and the file. An empty command means the desktop's opener.
std::vector<std::string> AttachHelperArgv(const std::string& command, const std::string& file);
// The command line as shown and traced: each item in double quotes only
// when it holds a blank.
std::string AttachCommandLine(const std::vector<std::string>& argv);
// Searches PATH for an executable program; empty if none.
std::string AttachFindExecutable(const std::string& name);
// Whether the file may be handed to the desktop's opener at all: programs,
// scripts and launchers from mail never are (by name or by content).
bool AttachLooksExecutable(const std::string& path);

// Starts argv detached; the pid, or -1 with *error set. Children are reaped
// as they end (AttachReapChildren, called after each launch and at exit).
// Tests replace the spawner to record what would run.
using AttachSpawnFn = std::function<int(const std::vector<std::string>& argv, std::string* error)>;
void AttachSetSpawnerForTest(AttachSpawnFn fn);
int AttachSpawn(const std::vector<std::string>& argv, std::string* error);
int AttachReapChildren();  // the number reaped

// The private directory (0700) for files handed to helpers; made on first
// use, removed with its files at exit.
std::string AttachTempDir();
void AttachRemoveTempDir();
// Writes data to a new 0600 file under the private directory with the
// given (safe) name, never replacing one; the path, or empty.
std::string AttachWriteTempFile(const std::string& name, std::string_view data);

// --- Saving -------------------------------------------------------------------

// Decodes a uuencoded text: the bytes of the first "begin" block. False
// when no complete block is found or a line is malformed.
bool AttachUudecode(std::string_view text, std::string* out, std::string* name);

// Decodes a BinHex 4.0 text: the data fork of the first block after its
// "(This file" line, with the name from its header (made safe). The
// resource fork is read for its check and dropped. False with the reason in
// *error when the block is missing, holds a foreign character, ends early
// or fails a check.
bool AttachBinhexDecode(std::string_view text, std::string* out, std::string* name, std::string* error);

// Writes data to path without replacing an existing file unless the user
// agrees; never with the execute bit. 1 saved, 0 failed (told), -1 declined.
int AttachSaveBytes(const std::string& path, std::string_view data);
// The decoded bytes of a part of a stored message; false on failure.
bool AttachPartBytes(UMI umi, const std::string& section, std::string* out);
