#include "editor/ekeys/commands.h"

#include <cstring>

#include "rclib/rc.h"

const KM_COMMAND_NAME km_command_names[] = {
    {"self-insert", 3},
    {"char-insert", 3},
    {"char-kill-fwd", 4},
    {"char-kill-rev", 4},
    {"word-kill-fwd", 4},
    {"word-kill-rev", 4},
    {"id-kill-fwd", 4},
    {"id-kill-rev", 4},
    {"nonwhite-kill-fwd", 4},
    {"nonwhite-kill-rev", 4},
    {"line-kill-eol", 4},
    {"line-kill-bol", 4},
    {"line-kill-white-sides", 4},
    {"line-newline", 4},
    {"line-openline", 4},
    {"buffer-select-all", 4},
    {"word-case-upper", 4},
    {"word-case-lower", 4},
    {"word-case-cap", 4},
    {"point-at-bob?", 4},
    {"point-at-eob?", 4},
    {"point-goto-char-fwd", 4},
    {"point-goto-char-rev", 4},
    {"point-goto-bob", 4},
    {"point-goto-eob", 4},
    {"point-goto-bob-no-x", 4},
    {"point-goto-eob-no-x", 4},
    {"point-goto-bol", 4},
    {"point-goto-eol", 4},
    {"point-goto-line-fwd", 4},
    {"point-goto-line-rev", 4},
    {"point-goto-id-fwd", 4},
    {"point-goto-id-rev", 4},
    {"point-goto-word-fwd", 4},
    {"point-goto-word-rev", 4},
    {"point-goto-nonwhite-fwd", 4},
    {"point-goto-nonwhite-rev", 4},
    {"selection-extend-tmp", 4},
    {"selection-extend-lock-on", 4},
    {"selection-extend-lock-off", 4},
    {"scroll-line-fwd", 6},
    {"scroll-line-rev", 6},
    {"scroll-page-fwd", 6},
    {"scroll-page-rev", 6},
    {"point-goto-page-fwd", 6},
    {"point-goto-page-rev", 6},
    // Every editing command can be taken back and done again.
    {"undo", 4},
    {"redo", 4},
};
const int km_command_count = sizeof(km_command_names) / sizeof(km_command_names[0]);

int km_command_known(const char* name) {
  if (!name) return RC_FAIL;
  for (const KM_COMMAND_NAME& c : km_command_names)
    if (std::strcmp(c.name, name) == 0) return RC_OK;
  return RC_FAIL;
}

int km_bind_known(const char* name) {
  if (!name) return RC_FAIL;
  if (std::strcmp(name, "rescan") == 0 || std::strcmp(name, "prefix") == 0) return RC_OK;
  return km_command_known(name);
}
