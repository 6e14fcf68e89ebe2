// Feeds arbitrary bytes to the wrapper as gpg's status output, its export
// file and its command words. Input: one byte choosing the split of the
// status stream into pieces, then the bytes. Besides not crashing, the
// verdict must not depend on how the pipe cut the stream, the limits must
// hold, and every code must be one the client knows.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/fuzz/fuzz_util.h"
#include "tools/pgpwrap_core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  size_t piece = 1 + data[0] % 64;
  std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);

  StatusParser whole, cut;
  whole.Feed(text.data(), text.size());
  whole.Finish();
  for (size_t at = 0; at < text.size(); at += piece) cut.Feed(text.data() + at, std::min(piece, text.size() - at));
  cut.Finish();
  const GpgStatus& a = whole.status();
  const GpgStatus& b = cut.status();
  Check(a.lines == b.lines && a.import_fprs == b.import_fprs && a.good_signatures == b.good_signatures &&
        a.bad_signatures == b.bad_signatures && a.bad_passphrase == b.bad_passphrase);
  Check(a.import_fprs.size() <= kStatusMaxKeys);
  for (const std::string& f : a.import_fprs) Check(!f.empty() && f.size() <= 64);

  const PgpOp ops[] = {PgpOp::kSign,           PgpOp::kDetachSign, PgpOp::kEncrypt, PgpOp::kDecrypt,
                       PgpOp::kVerifyDetached, PgpOp::kImport,     PgpOp::kExport,  PgpOp::kGenerate};
  for (PgpOp op : ops) {
    GpgPlan plan;
    plan.op = op;
    int code = CodeFor(plan, a, data[0] % 3, data[0] & 1);
    Check(code == 0 || code == 6 || code == 10 || code == 12 || code == 20 || code == 21 || code == 31 ||
          code == 32 || (code >= 50 && code <= 58) || code == 66);
  }

  // The same bytes as an export file and as command words.
  ExportContents ex;
  std::string error;
  int lines = 0;
  for (char c : text) lines += c == '\n';
  if (ParseExportFile(text, lines, data[0] & 1, &ex, &error)) {
    Check(ex.words.size() <= static_cast<size_t>(kExportMaxWords) && !ex.pgp_path.empty());
    GpgPlan plan;
    if (TranslateCommand(ex.words, &plan, &error)) Check(!plan.args.empty());
    else Check(!error.empty());
  } else {
    Check(!error.empty());
  }
  KeygripsFromColons(text);
  return 0;
}
