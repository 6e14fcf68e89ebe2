// Printing through the platform's print system, or into a PDF file: the
// pages arrive as lines of text and are set in a fixed-pitch font, so the
// program's own line breaks are the printed ones.
#include <QFont>
#include <QFontMetricsF>
#include <QPainter>
#include <QPrintDialog>
#include <QPrinter>
#include <memory>

#include "xvt/qt/qt_internal.h"

namespace {

struct PrintJob {
  std::unique_ptr<QPrinter> printer;
  std::unique_ptr<QPainter> painter;
  QFont font;
  double line_height = 0;
  double ascent = 0;
  QRectF area;
  int lines = 0;
  bool first = true;
};

std::unique_ptr<PrintJob> g_job;

}  // namespace

using namespace xvtqt;

void xvt_vobj_set_tooltip(WINDOW win, const char* text) {
  if (!xvtrec::Live(win)) return;
  win->tooltip = text ? text : "";
  if (win->outer) win->outer->setToolTip(FromUtf8(win->tooltip.c_str()));
}

bool xvt_print_start(const char* title, const char* pdf_path, XVT_PRINT_GEOMETRY* geometry) {
  g_job.reset();
  auto job = std::make_unique<PrintJob>();
  job->printer = std::make_unique<QPrinter>(QPrinter::HighResolution);
  job->printer->setDocName(FromUtf8(title ? title : ""));
  job->printer->setPageSize(QPageSize(QPageSize::A4));
  // Room to hold the sheet and to punch it, whatever the printer's own edge.
  job->printer->setPageMargins(QMarginsF(20, 15, 15, 15), QPageLayout::Millimeter);
  if (pdf_path) {
    job->printer->setOutputFormat(QPrinter::PdfFormat);
    job->printer->setOutputFileName(FromUtf8(pdf_path));
  } else {
    QPrintDialog dialog(job->printer.get(), DialogParent());
    dialog.setWindowTitle(FromUtf8(title ? title : "Print"));
    if (dialog.exec() != QDialog::Accepted) return false;
  }
  job->painter = std::make_unique<QPainter>();
  if (!job->painter->begin(job->printer.get())) return false;
  job->font = QFont("Monospace");
  job->font.setStyleHint(QFont::TypeWriter);
  job->font.setPointSizeF(10);
  job->painter->setFont(job->font);
  QFontMetricsF metrics(job->font, job->printer.get());
  job->line_height = metrics.lineSpacing();
  job->ascent = metrics.ascent();
  job->area = QRectF(QPointF(0, 0), job->printer->pageLayout().paintRectPixels(job->printer->resolution()).size());
  const double advance = metrics.horizontalAdvance(QLatin1Char('M'));
  job->lines = std::max(1, static_cast<int>(job->area.height() / job->line_height));
  if (geometry) {
    geometry->lines = job->lines;
    geometry->columns = std::max(1, static_cast<int>(job->area.width() / advance));
  }
  g_job = std::move(job);
  return true;
}

bool xvt_print_page(const std::vector<std::string>& lines) {
  if (!g_job) return false;
  PrintJob& j = *g_job;
  if (!j.first && !j.printer->newPage()) return false;
  j.first = false;
  const size_t count = std::min(lines.size(), static_cast<size_t>(j.lines));
  for (size_t i = 0; i < count; ++i)
    j.painter->drawText(QPointF(j.area.left(), j.area.top() + j.ascent + i * j.line_height), FromUtf8(lines[i].c_str()));
  return true;
}

bool xvt_print_end(void) {
  if (!g_job) return false;
  const bool ok = g_job->painter->end();
  g_job.reset();
  return ok;
}
