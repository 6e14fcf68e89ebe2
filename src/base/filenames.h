// The program's directories and the names of all its files.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

enum FileKind {
  kFileCfgTcl = 0,
  kFileOptArgs = 1,
  kFileProcessTcl = 2,
  kFileDefaultTcl = 3,
  kFileSysDefault = 4,
  kFileSysDefault2 = 5,
  kFileInstallData = 6,
  kFilePhoneMsgForm = 7,
  kFileStartupTcl = 8,
  kFileXvtTcl = 9,
  kFileOptLocn = 10,
  kFileUserIni = 11,
  kFileSiteIni = 12,
  kFileLocalBooks = 13,
  kFileFolders = 14,
  kFileSubscriptions = 16,
  kFileTemp = 17,
  kFileDebug = 19,
  kFileDictionary = 20,
  kFileUserDictionary = 21,
  kFileKeybind = 22,
  kFileBanner = 23,
  kFilePgpWrapper = 24,
  kFileTroubleReport = 25,
  kFileTroubleForm = 26,
};

// Longest directory name the program accepts (a path, not an old 256-byte
// buffer: a deep home directory must not stop the program).
constexpr size_t kMaxDirName = 4096;

// Finds the application, user and temporary directories; creates the user
// directory (mode 0700) and makes it the current directory. 1 on success;
// on failure the user has been told.
int InitDirectories();
// Where the user directory is, by the environment, without making it.
std::string FindUserDir();
// For tests: forget the directories.
void ResetDirectories();

std::string GetApplicationDir();
std::string GetUserDir();
std::string GetTempDir();

// The full name of a program file; empty for an unknown kind.
std::string get_file_name(int kind);
// Joins a directory and a name with one "/".
std::string JoinPath(const std::string& dir, const std::string& name);

// The next free temporary name ("t%ld.tmp") in the temporary directory.
std::string NewTempName();
void SetTempCounterForTest(long value);

void CleanTempFiles();
int CheckWorkingDir();
int EnsureDirectory(const char* path);
int OpenHelpFile();
void CloseHelpFile();
// file without its last extension, plus ".bak".
std::string MakeBackupName(const std::string& file);
void SetLastSearchDirectory(const char* dir);
std::string GetLastSearchDirectory();

// File helpers.
// Reads a whole file; false on failure. limit guards against huge files.
bool SlurpFile(const char* name, std::string* out, size_t limit = 64u << 20);
// Appends a file's bytes to stream; with flag set, a missing file is no error.
int AppendFile(FILE* stream, const char* name, int flag);
// The copies replace their target in one step (rclib/safe_file.h): a
// failure leaves the target as it was.
// Copies source to target with source's mode; with flag set, an existing
// target is kept.
int CopyFile(const char* source, const char* target, int flag);
int FileExists(const char* name);
// Copies name to its backup name, replacing an older backup.
int BackupFile(const char* name);
// Copies length bytes from offset of source to target.
int CopyFileSectionToFile(const char* source, long offset, long length, const char* target);
