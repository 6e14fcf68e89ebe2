// Printing without a printer: the jobs are kept for the tests to read.
#include <algorithm>

#include "xvt/headless/headless_internal.h"

using namespace xvthl;

void xvt_vobj_set_tooltip(WINDOW win, const char* text) {
  if (Live(win)) win->tooltip = text ? text : "";
}

bool xvt_print_start(const char* title, const char* pdf_path, XVT_PRINT_GEOMETRY* geometry) {
  XvtPrintJob job;
  job.title = title ? title : "";
  job.pdf_path = pdf_path ? pdf_path : "";
  S().print_jobs.push_back(job);
  if (geometry) *geometry = S().print_geometry;
  return true;
}

bool xvt_print_page(const std::vector<std::string>& lines) {
  if (S().print_jobs.empty() || S().print_jobs.back().ended) return false;
  const size_t fit = static_cast<size_t>(S().print_geometry.lines);
  S().print_jobs.back().pages.emplace_back(lines.begin(), lines.begin() + std::min(lines.size(), fit));
  return true;
}

bool xvt_print_end(void) {
  if (S().print_jobs.empty() || S().print_jobs.back().ended) return false;
  S().print_jobs.back().ended = true;
  return !S().print_fail;
}

void xvt_test_set_print_geometry(int lines, int columns) { S().print_geometry = XVT_PRINT_GEOMETRY{lines, columns}; }
void xvt_test_set_print_failure(bool fail) { S().print_fail = fail; }
const std::vector<XvtPrintJob>& xvt_test_print_jobs(void) { return S().print_jobs; }
