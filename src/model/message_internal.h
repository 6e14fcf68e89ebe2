// Helpers that the message files of the model share (messages, sections,
// message operations, the MIME tree). Nothing outside src/model includes
// this.
#pragma once

#include <string>

#include "src/model/model_internal.h"

// A new, empty temporary file (mode 0600, made exclusively) in the
// temporary directory: its descriptor, and its full name in *path; -1 on
// failure.
int CreateTempFile(std::string* path);

// Gives the caller the file of a cached text of kind file: the text keeps
// no name (so freeing it deletes nothing) and is marked consumed, so that
// the mail layer fetches it anew next time. Returns the name.
std::string TakeTextFile(MailText* text);

// Whether a part is message/rfc822 (the subtype in any case).
bool IsMessageRfc822(const BodyPart* body);

// The attachment kind of a part by its type and subtype.
int AttachKindOf(const BodyPart* body);

// A shadow message's header or body, or the whole embedded message, in a
// fresh temporary file of the caller's; "" on failure.
std::string ShadowUMIRawHeadersToFile(UMI umi);
std::string ShadowUMIRawBodyToFile(UMI umi);
std::string ShadowUMIToFile(UMI umi);
