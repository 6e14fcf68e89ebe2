// The message organizer's top window, the mail timer and the commands that
// every window shares.
#pragma once

#include "xvt/xvt.h"

constexpr long kDefaultMailPeriodMs = 420000;  // seven minutes
constexpr long kMailRetryMs = 1000;

void openMessageServicesWindow();
WINDOW MSG_TopWindow();
// Commands that any window may send and none handles itself.
void MSG_DoCommonCommand(WINDOW source, int command);

// The mail timer runs on the organizer's top window: Timer.Interval
// minutes, or once a second while a check has had to wait.
void set_mail_timer(int normal);
void MSG_DestroyMailTimer();
void MSG_SetMailTimerOwner(WINDOW win);
long MSG_MailTimerPeriod();  // 0 when no timer runs
// The organizer's E_TIMER: posts E_MAIL_TIMER unless one is being posted.
void MSG_MailTimerTick();
// What each open folder does on E_MAIL_TIMER before it checks: 1 when the
// check may run now. In a critical section, or while the mouse is held,
// the timer drops to the retry rate; the first free tick restores it.
int MSG_MailTimerGate();

// Folder > Access Rights...: the rights of folder name of service ms, on a
// server that keeps access lists.
void FOL_AccessRights(int ms, const char* name);
// Whether the service's server keeps access lists (asks it only once the
// service is connected).
bool FOL_ServiceHasACL(int ms);
