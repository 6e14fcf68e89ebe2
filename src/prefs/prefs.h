// Options > Preferences...: one dialog with a list of pages on the left,
// through which a user sets up identity, message services, sending,
// reading and composing, address books and where the options are kept.
// Nothing is assigned before OK; OK assigns only what the user changed, at
// the permanent level, and saves the options.
#pragma once

#include <string>
#include <vector>

enum PrefPage {
  kPrefPageIdentity = 0,
  kPrefPageServices,
  kPrefPageSending,
  kPrefPageReading,
  kPrefPageComposing,
  kPrefPageBooks,
  kPrefPageLocation,
  kPrefPageFonts,
  kPrefPageDirectory,
  kPrefPageCount
};

// Resource ids of the dialogs.
constexpr int kPrefsRid = 20850;
constexpr int kPrefsServiceRid = 20851;

// Controls of the preferences dialog.
constexpr int kPrefPages = 2001;  // the list of pages
constexpr int kPrefOk = 2002;
constexpr int kPrefCancel = 2003;
// Identity
constexpr int kPrefFullname = 2101;
constexpr int kPrefAddress = 2102;
constexpr int kPrefReplyTo = 2103;
constexpr int kPrefSignature = 2104;
// Services
constexpr int kPrefServiceList = 2201;
constexpr int kPrefServiceAdd = 2202;
constexpr int kPrefServiceEdit = 2203;
constexpr int kPrefServiceDelete = 2204;
// Sending
constexpr int kPrefSmtpHost = 2301;
constexpr int kPrefSmtpPort = 2302;
constexpr int kPrefSmtpSecurity = 2303;
constexpr int kPrefSmtpUser = 2304;
constexpr int kPrefSmtpMechanisms = 2305;
constexpr int kPrefUseOutbox = 2306;
constexpr int kPrefBackground = 2307;
// Reading and composing
constexpr int kPrefLineWrap = 2401;
constexpr int kPrefReplyWrap = 2402;
constexpr int kPrefForwardWrap = 2403;
constexpr int kPrefQuotePrefix = 2404;
constexpr int kPrefAskReceipt = 2405;
constexpr int kPrefReceiptPolicy = 2406;
constexpr int kPrefHeaderStyle = 2407;
constexpr int kPrefSaveOutgoing = 2408;
constexpr int kPrefMailTimer = 2409;
constexpr int kPrefSpellFirst = 2410;
constexpr int kPrefAttachWords = 2411;
constexpr int kPrefReplyText = 2412;
constexpr int kPrefReplyAll = 2413;
constexpr int kPrefForwardAttach = 2414;
// Address books
constexpr int kPrefBookLocal = 2501;
constexpr int kPrefBookRemote = 2502;
constexpr int kPrefBookHost = 2503;
constexpr int kPrefBookPort = 2504;
constexpr int kPrefBookByName = 2505;
constexpr int kPrefBookByEmail = 2506;
constexpr int kPrefBookByAlias = 2507;
constexpr int kPrefBookExpand = 2508;
// The public directory
constexpr int kPrefDirEnable = 2701;
constexpr int kPrefDirHost = 2702;
constexpr int kPrefDirPort = 2703;
constexpr int kPrefDirTls = 2704;
constexpr int kPrefDirBase = 2705;
constexpr int kPrefDirBind = 2706;
constexpr int kPrefDirCaFile = 2707;
constexpr int kPrefDirTimeout = 2708;
// Options location
constexpr int kPrefLocLocal = 2601;
constexpr int kPrefLocRemote = 2602;
constexpr int kPrefLocFile = 2603;
constexpr int kPrefLocHost = 2604;
constexpr int kPrefLocPort = 2605;

// Fonts: for each font kind k, what it holds now and its Choose button.
constexpr int kPrefFontText = 2610;    // + k
constexpr int kPrefFontChoose = 2630;  // + k

// Controls of the service dialog.
constexpr int kSvcName = 2701;
constexpr int kSvcType = 2702;
constexpr int kSvcHost = 2703;
constexpr int kSvcPort = 2704;
constexpr int kSvcSecurity = 2705;
constexpr int kSvcUser = 2706;
constexpr int kSvcLocation = 2707;
constexpr int kSvcOk = 2708;
constexpr int kSvcCancel = 2709;

// Opens the preferences on a page; 1 when the user left with OK and the
// options were saved, 0 on Cancel or a failed save.
int PREF_Open(int page);

// The delivery host option holds the host and its switches ("/ssl",
// "/tls", "/notls", "/submit", ...) in one word. Split keeps the switches
// other than the transport security as they were, so that a rebuilt value
// loses nothing the dialog does not show.
struct DeliveryHost {
  std::string host;
  std::string security;  // "", "tls", "ssl" or "none"
  std::string others;    // the remaining switches, each with its "/"
};
DeliveryHost PREF_SplitDeliveryHost(const std::string& value);
std::string PREF_JoinDeliveryHost(const DeliveryHost& parts);
// The service numbers of a MsgService.IDList value, in order: words that are
// no positive number, or repeat one, are passed over; at most 100 are kept.
std::vector<int> PREF_ParseIdList(const std::string& value);
