// A driver table for a driver whose code is not written yet: it refuses
// every name and does nothing in every other slot, so that the core, the
// model and the tools link and run before the driver exists. The real
// driver replaces its stand-in file in its own folder.
#pragma once

#include "c-client/core/mail.h"

// `open` answers the prototype when given no stream, as every driver does.
MailDriver StandinDriver(const char* name, MailStream* (*open)(MailStream*), MailStream* prototype);
