// The imap2 driver's slots, as its table lists them.
#pragma once

#include "c-client/core/mail.h"

struct TcpStream;

MailStream* map_open(MailStream* stream);
void map_close(MailStream* stream);
void map_capabilities(MailStream* stream, long* word);
void map_find(MailStream* stream, const char* pattern);
void map_find_bboards(MailStream* stream, const char* pattern);
void map_find_all(MailStream* stream, const char* pattern);
void map_find_all_bboards(MailStream* stream, const char* pattern);
long map_subscribe(MailStream* stream, const char* mailbox);
long map_unsubscribe(MailStream* stream, const char* mailbox);
long map_subscribe_bboard(MailStream* stream, const char* name);
long map_unsubscribe_bboard(MailStream* stream, const char* name);
long map_create(MailStream* stream, const char* mailbox);
long map_delete(MailStream* stream, const char* mailbox);
long map_rename(MailStream* stream, const char* old_name, const char* new_name);
void map_fetchfast(MailStream* stream, const char* sequence);
void map_fetchflags(MailStream* stream, const char* sequence);
Envelope* map_fetchstructure(MailStream* stream, unsigned long msgno, BodyPart** body);
MailText* map_fetchheader(MailStream* stream, unsigned long msgno);
MailText* map_fetchtext(MailStream* stream, unsigned long msgno);
MailText* map_fetchbody(MailStream* stream, unsigned long msgno, const char* section, BodyPart* part,
                        unsigned long offset, unsigned long* length);
void map_setflag(MailStream* stream, const char* sequence, const char* flags);
void map_clearflag(MailStream* stream, const char* sequence, const char* flags);
void map_search(MailStream* stream, const char* criteria);
long map_ping(MailStream* stream);
void map_check(MailStream* stream);
void map_expunge(MailStream* stream);
long map_copy(MailStream* stream, const char* sequence, const char* mailbox);
long map_move(MailStream* stream, const char* sequence, const char* mailbox);
long map_append(MailStream* stream, const char* mailbox, const char* flags, const char* date, StringSource* message);
long map_getacl(MailStream* stream, const char* mailbox);
long map_setacl(MailStream* stream, const char* mailbox, const char* identifier, const char* rights);
long map_deleteacl(MailStream* stream, const char* mailbox, const char* identifier);
long map_myrights(MailStream* stream, const char* mailbox);
long map_setquota(MailStream* stream, const char* root, long storage, long messages);
long map_getquota(MailStream* stream, const char* root);
void map_gc(MailStream* stream, long flags);
long map_status(MailStream* stream, const char* mailbox, long flags, MailStatus* out);

// For tests and the fuzz target: a selected stream over an already
// connected descriptor's TcpStream (no greeting, no login) with nmsgs
// messages; mail_close frees it.
MailStream* imap_attach_for_test(TcpStream* tcp, unsigned long nmsgs);
