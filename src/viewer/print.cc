// Printing messages: the user picks a printer or a PDF file; every message
// starts on a new page and numbers its own pages, so that a printout of
// several messages can be split into messages again.
#include "src/viewer/print.h"

#include <ctime>
#include <string>

#include "src/base/critical.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/viewer/print_layout.h"
#include "src/viewer/viewer_internal.h"

namespace {

std::string FolderName(UMI umi) {
  if (MM_MsgIsShadowMessage(umi)) return "RFC822 Message";
  const int folder = MM_UMIFolder(umi);
  const char* name = MM_FolGetName(folder);
  if (!name || !*name) return "";
  const char* friendly = MM_FolGetFriendlyName(MM_FolGetService(folder), name);
  return friendly && *friendly ? friendly : name;
}

std::string PrintedAt() {
  char buf[64];
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  std::strftime(buf, sizeof buf, "Printed %d %b %Y %H:%M", &tm);
  return buf;
}

PrintMessage MessageToPrint(UMI umi) {
  PrintMessage m;
  m.folder = FolderName(umi);
  m.fields = ViewerPrintFields(umi);
  const ViewerContent content = ViewerBuildContent(umi);
  if (content.has_text) m.text = content.text;
  if (!content.rows.empty()) {
    // What is not text is named, so the reader knows it was there.
    if (!m.text.empty() && m.text.back() != '\n') m.text += '\n';
    m.text += content.has_text ? "\nAttachments:\n" : "This message's parts:\n";
    for (const AttachRow& row : content.rows) m.text += "  " + row.label + "\n";
  }
  return m;
}

// Where the printout goes: false when the user cancels; *pdf empty for a
// printer.
bool ChooseDestination(size_t count, std::string* pdf) {
  const ASK_RESPONSE r = xvt_dm_post_ask("Printer...", "PDF File...", "Cancel",
                                         "Print %zu message%s to a printer or into a PDF file?", count,
                                         count == 1 ? "" : "s");
  if (r == RESP_3) return false;
  pdf->clear();
  if (r == RESP_DEFAULT) return true;
  char path[4096];
  std::snprintf(path, sizeof path, "%s", JoinPath(GetUserDir(), "message.pdf").c_str());
  if (!xvt_dm_post_file_save("Print into the PDF file:", path, sizeof path) || !*path) return false;
  *pdf = path;
  return true;
}

}  // namespace

int VIEW_PrintMessages(const std::vector<UMI>& umis) {
  if (umis.empty()) return 0;
  std::string pdf;
  if (!ChooseDestination(umis.size(), &pdf)) return 0;
  std::string title = "Velmar";
  if (umis.size() == 1) {
    for (const auto& [name, value] : ViewerPrintFields(umis[0]))
      if (name == "Subject" && !value.empty()) title += ": " + value;
  }
  XVT_PRINT_GEOMETRY geometry{};
  if (!xvt_print_start(title.c_str(), pdf.empty() ? nullptr : pdf.c_str(), &geometry)) {
    Trace(kTracePrint, kTraceLow, "VIEW_PrintMessages: the print job was not started\n");
    // A cancelled print dialog needs no word; a file that cannot be made does.
    if (!pdf.empty()) xvt_dm_post_error("The PDF file %s could not be made.", pdf.c_str());
    return 0;
  }
  Trace(kTracePrint, kTraceLow, "VIEW_PrintMessages: pages of %d lines of %d characters\n", geometry.lines,
        geometry.columns);
  const std::string printed = PrintedAt();
  int total = 0;
  bool ok = true;
  for (UMI umi : umis) {
    WIN_start_critical();
    const PrintMessage message = MessageToPrint(umi);
    WIN_end_critical();
    std::vector<PrintPage> pages;
    std::string error;
    if (!PRINT_LayoutMessage(message, printed, PrintPageSize{geometry.lines, geometry.columns}, &pages, &error)) {
      xvt_dm_post_error("%s", error.c_str());
      continue;
    }
    for (const PrintPage& page : pages) {
      if (!xvt_print_page(page)) {
        ok = false;
        break;
      }
      ++total;
    }
    Trace(kTracePrint, kTraceLow, "VIEW_PrintMessages: %zu page(s) for message %llx\n", pages.size(),
          static_cast<unsigned long long>(umi));
    if (!ok) break;
  }
  if (!xvt_print_end() || !ok) {
    xvt_dm_post_error("The printout could not be finished%s%s.", pdf.empty() ? "" : ": ", pdf.c_str());
    return 0;
  }
  return total;
}
