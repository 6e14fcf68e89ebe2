// Whether a message is one the user wrote: a draft, or one whose From is
// the user's own address. The organizer shows such lines as outgoing and
// read receipts leave them alone; both ask here so they never disagree.
#pragma once

#include "src/model/mm.h"

// 1 for a draft or a From equal (mailbox and host, any case) to
// General.MailAddress or common.from; 0 otherwise, and for a gone message.
int MM_MsgIsOutgoing(UMI umi);
// The address test alone: text ("user@host") names the same mailbox as a.
bool MM_SameAddress(const MailAddress* a, const char* text);
