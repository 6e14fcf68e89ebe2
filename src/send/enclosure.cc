// Enclosures in files: the dispatch, the questions and the files around
// the coders of c-client/rfc822/enclosure.h. Every file is written through
// the safe writer, so a failure leaves no half-written output.
#include "src/send/enclosure.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "c-client/rfc822/enclosure.h"
#include "rclib/safe_file.h"
#include "xvt/xvt.h"

namespace {

// An input beyond this is no enclosure to decode.
constexpr size_t kMaxInput = 2 * kEnclosureMaxOutput;

enum class Read { kOk, kOpen, kRead };

Read ReadAll(const char* path, std::string* out, int* error) {
  out->clear();
  SafeFileError err;
  const int fd = safe_open_read(path, &err);
  if (fd < 0) {
    *error = err.error;
    return Read::kOpen;
  }
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || out->size() + static_cast<size_t>(n) > kMaxInput) {
      *error = n < 0 ? errno : EFBIG;
      ::close(fd);
      return Read::kRead;
    }
    if (n == 0) break;
    out->append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return Read::kOk;
}

// The text with each line's leading control characters taken off.
std::string Stripped(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    end = end == std::string::npos ? text.size() : end + 1;
    std::string line = text.substr(at, end - at);
    StripHeadingControlChararacters(line.data());
    out += line.c_str();
    // A line that was all control characters keeps its line end.
    if (out.empty() || out.back() != '\n') {
      if (end <= text.size() && text[end - 1] == '\n') out += '\n';
    }
    at = end;
  }
  return out;
}

const char* BaseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

// Asks where to save, offering name; false on cancel.
bool AskPath(const char* prompt, const std::string& name, std::string* path) {
  char buffer[1024];
  std::snprintf(buffer, sizeof buffer, "%s", name.c_str());
  if (!xvt_dm_post_file_save(prompt, buffer, sizeof buffer)) return false;
  *path = buffer;
  return !path->empty();
}

// Writes a decoded file: never with the execute bit.
bool SaveDecoded(const std::string& path, const std::string& data) {
  SafeFileError err;
  if (safe_replace_file(path, data, 0644, &err)) return true;
  if (err.step == kSafeOpen)
    xvt_dm_post_error("Failed to open decoded output file for writing: %s - %s", path.c_str(), std::strerror(err.error));
  else
    xvt_dm_post_error("Decode enclosure failed - error writing decoded output file - %s.", std::strerror(err.error));
  return false;
}

int DecodeUuText(const std::string& text) {
  UuDecoded decoded;
  switch (uu_decode(text, &decoded)) {
    case UuStatus::kOk:
      break;
    case UuStatus::kNoBegin:
    case UuStatus::kNoEnd:
      xvt_dm_post_error("Decode enclosure failed - short file - did not locate uuencoded enclosure \"end\" header line.");
      return 0;
    case UuStatus::kBadLine:
    case UuStatus::kTooLarge:
      xvt_dm_post_error("Decode enclosure failed - error reading enclosure file - %s.", "bad uuencoded line");
      return 0;
  }
  std::string path;
  if (!AskPath("Save enclosure to:", BaseName(decoded.name.c_str()), &path)) return -1;
  return SaveDecoded(path, decoded.data) ? 1 : 0;
}

// Asks for the data fork's file (the resource fork's is the caller's).
bool setup_files(const BinhexFile& file, std::string* data_path) {
  return AskPath("Save binhex enclosure to:", BaseName(file.name.c_str()), data_path);
}

bool do_q_fork(const std::string& path, const std::string& bytes) {
  SafeFileError err;
  if (safe_replace_file(path, bytes, 0644, &err)) return true;
  xvt_dm_post_error("Error in creating and opening the file [%s] in do_q_fork in hexbin.c", path.c_str());
  return false;
}

int process_forks(const BinhexFile& file, const std::string& data_path, const char* rsrc_path) {
  if (!do_q_fork(data_path, file.data)) return 0;
  if (rsrc_path && *rsrc_path && !do_q_fork(rsrc_path, file.rsrc)) return 0;
  return 1;
}

int DecodeHexbinText(const std::string& text, const char* rsrc_file) {
  BinhexFile file;
  std::string why;
  if (!binhex_decode(text, &file, &why)) {
    xvt_dm_post_error("%s", why.c_str());
    return 0;
  }
  std::string path;
  if (!setup_files(file, &path)) return -1;
  return process_forks(file, path, rsrc_file);
}

// Reads an enclosure file for decoding; false with the failure told.
bool ReadForDecode(const char* file, const char* read_failure, std::string* text) {
  int error = 0;
  switch (ReadAll(file, text, &error)) {
    case Read::kOk:
      *text = Stripped(*text);
      return true;
    case Read::kOpen:
      xvt_dm_post_error("Failed to open input file for reading: %s - %s", file, std::strerror(error));
      return false;
    case Read::kRead:
      xvt_dm_post_error(read_failure, std::strerror(error));
      return false;
  }
  return false;
}

constexpr char kExtractReadFailure[] = "Extract enclosure failed - error reading enclosure file - %s.";
constexpr char kDecodeReadFailure[] = "Decode enclosure failed - error reading enclosure file - %s.";

// Reads the input and writes the encoded text.
int EncodeWith(const char* file, const char* out, std::string (*encode)(const std::string& data, const char* file,
                                                                        unsigned mode)) {
  std::string data;
  int error = 0;
  const Read r = ReadAll(file, &data, &error);
  if (r == Read::kOpen) {
    xvt_dm_post_error("Failed to open input file for reading: %s - %s", file, std::strerror(error));
    return 0;
  }
  if (r == Read::kRead) {
    xvt_dm_post_error("Encode enclosure failed - error reading enclosure file - %s.", std::strerror(error));
    return 0;
  }
  struct stat st;
  const unsigned mode = ::stat(file, &st) == 0 ? static_cast<unsigned>(st.st_mode & 0777) : 0644;
  SafeFileError err;
  if (!safe_replace_file(out, encode(data, file, mode), 0600, &err)) {
    if (err.step == kSafeOpen)
      xvt_dm_post_error("Failed to open output file for writing: %s - %s", out, std::strerror(err.error));
    else
      xvt_dm_post_error("Encode enclosure failed - error writing encoded output file - %s.", std::strerror(err.error));
    return 0;
  }
  return 1;
}

}  // namespace

void StripHeadingControlChararacters(char* line) {
  if (!line) return;
  size_t skip = 0;
  while (line[skip] && static_cast<unsigned char>(line[skip]) < 0x20 && line[skip] != '\n') ++skip;
  if (skip) std::memmove(line, line + skip, std::strlen(line + skip) + 1);
}

int DecodeFileEnclosure(const char* file) {
  std::string text;
  if (!ReadForDecode(file, kExtractReadFailure, &text)) return 0;
  for (size_t at = 0; at < text.size();) {
    if (text.compare(at, 6, "begin ") == 0) return DecodeUuText(text.substr(at));
    if (text.compare(at, 10, "(This file") == 0) return DecodeHexbinText(text.substr(at), nullptr);
    const size_t end = text.find('\n', at);
    if (end == std::string::npos) break;
    at = end + 1;
  }
  xvt_dm_post_error("The file %s holds no uuencoded or BinHex enclosure.", file);
  return 0;
}

int DecodeUUEncodedFile(const char* file) {
  std::string text;
  return ReadForDecode(file, kDecodeReadFailure, &text) ? DecodeUuText(text) : 0;
}

int DecodeHexbinFile(const char* file, const char* rsrc_file) {
  std::string text;
  return ReadForDecode(file, kExtractReadFailure, &text) ? DecodeHexbinText(text, rsrc_file) : 0;
}

int EncodeFileEnclosure(const char* file, EnclosureFormat format, const char* out) {
  if (format == EnclosureFormat::kBinhex) {
    xvt_dm_post_error("Encoding of files in BINHEX format is not supported in this version of Velmar.");
    return 0;
  }
  return EncodeFileUUEncoded(file, out);
}

int EncodeFileUUEncoded(const char* file, const char* out) {
  return EncodeWith(file, out, [](const std::string& data, const char* path, unsigned mode) {
    return uu_encode(data, mode, BaseName(path));
  });
}

int binhex(const char* file, const char* out) {
  std::string data;
  int error = 0;
  if (ReadAll(file, &data, &error) != Read::kOk) {
    xvt_dm_post_error("Failed to open input file for reading: %s - %s", file, std::strerror(error));
    return 0;
  }
  SafeFileError err;
  if (!safe_replace_file(out, binhex_encode(fakehead(BaseName(file), std::move(data))), 0600, &err)) {
    xvt_dm_post_error("Couldn't open output file for BinHex encoding.\n");
    return 0;
  }
  return 1;
}
