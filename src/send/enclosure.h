// Enclosures in files: finding a uuencoded or BinHex block in a file,
// asking where to save what it holds, and encoding a file for sending.
// The byte coders are c-client/rfc822/enclosure.h.
//
// Each call returns 1 when done, 0 on a failure (told to the user in a
// dialog), -1 when the user cancelled.
#pragma once

enum class EnclosureFormat { kUuencode, kBinhex };

// Reads the file, lines stripped of leading control characters; the first
// line that begins "begin " (uuencode) or "(This file" (BinHex) decides.
int DecodeFileEnclosure(const char* file);
int DecodeUUEncodedFile(const char* file);
// The data fork goes to the file the user chooses; the resource fork, when
// rsrc_file is given, to that file.
int DecodeHexbinFile(const char* file, const char* rsrc_file = nullptr);

// Encodes file into out. BinHex is refused here (the compose path calls
// binhex itself).
int EncodeFileEnclosure(const char* file, EnclosureFormat format, const char* out);
int EncodeFileUUEncoded(const char* file, const char* out);
int binhex(const char* file, const char* out);

// Lines of text without the control characters some mailers put before
// them (a form feed, a stray CR).
void StripHeadingControlChararacters(char* line);
