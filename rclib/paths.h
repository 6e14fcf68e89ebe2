// Path helpers. '/' is the separator; a backslash is accepted as one too
// when paths are taken apart, since older files may hold such paths.
//
// Paths are limited to kRcPathBuf (256) bytes including the NUL and short
// parts to kRcNameBuf (32): outputs are buffers of those sizes, and a
// result that would not fit gives RC_FAIL with rc_errno 3 and empty outputs.
// Linux has no drives, so drive parts are always empty.
#pragma once

#include "rclib/strings.h"

// Removes one trailing separator in place; a one-character path ("/") is
// kept as it is. Returns path.
char* rc_path_strip_sep(char* path);
// RC_OK if the path exists and is a regular file (after stripping one
// trailing separator, for the _strip form).
int rc_path_is_file(const char* path);
int rc_path_is_file_strip(const char* path);

// Splits into drive (always empty), directory with its trailing separator,
// name and extension with its dot. The extension starts at the last dot of
// the final component unless that dot is its first character (".profile" is
// a name). Each output may be null; drive, name and ext are kRcNameBuf,
// dir is kRcPathBuf.
int rc_path_split(const char* path, char* drive, char* dir, char* name, char* ext);
// The final component (name plus extension) into a kRcPathBuf.
int rc_path_file_name(const char* path, char* out);
// Field `n` (from 1) of the final component split at "."; kRcPathBuf.
// Directories are not split: "~/.local/x.y" has the fields "x" and "y".
int rc_path_component(const char* path, int n, char* out);
// Builds a name from a pattern of dot fields: each field of the pattern's
// final component that holds "=" is replaced by the model's field of the
// same number ("=.idx" with "inbox.fol" gives "inbox.idx"). The pattern's
// directory, if any, is kept; the model's is not used. RC_FAIL with
// rc_errno 8 when an "=" remains (the model has too few fields, or its
// field holds "=" itself). kRcPathBuf.
int rc_path_subst(const char* model, const char* pattern, char* out);
// `path` relative to the directory `base`, worked out lexically ("." and
// ".." resolved, repeated separators ignored, '/' in the result): "." for
// the base itself, "../x" for a sibling. RC_FAIL when one is absolute and
// the other is not, or when base climbs above its start with "..".
// kRcPathBuf.
int rc_path_relpath(const char* path, const char* base, char* out);

// Temporary directory: kind 2 gives $TMPDIR (without a trailing separator)
// or "/tmp"; other kinds give $RAMDISK with a "/" behind it, or RC_FAIL and
// an empty out when it is unset. kRcPathBuf.
int rc_path_temp_dir(char* out, int kind);
// "%05dtmp" from a counter that rises over the process's life (wrapping
// after 99999), skipping names of existing regular files in the current
// directory. RC_FAIL and an empty out when every number is taken. The name
// is only free when checked: create the file exclusively. kRcPathBuf.
int rc_path_temp_name(char* out);
// Creates each level of `subdir` under `parentdir` (null or empty: the
// current directory; parentdir itself must exist), mode 0700, accepting
// levels that already are directories. With kRcDbgEntry in rc_debug_bits it
// prints the request ("levels" counts the separators inside subdir,
// "num_levels" the directories to walk) and each directory it created.
int rc_path_make_dirs(const char* parentdir, const char* subdir);
