#include "src/base/commands.h"

const MENU_ITEM kOptionsMenu[] = {
    {M_OPTIONS_PREFERENCES, "~Preferences...", true, false, false, nullptr},
    {M_OPTIONS_LOAD, "~Load...", true, false, false, nullptr},
    {M_OPTIONS_SAVE, "~Save", true, false, false, nullptr},
    {M_OPTIONS_CHANGE_PASSWORD, "Change ~Password...", false, false, false, nullptr},
    {M_OPTIONS_AUTO_REPLY, "Auto ~Reply...", true, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};

const MENU_ITEM kHelpMenu[] = {
    {M_HELP_CONTENTS, "~Contents\tF1", true, false, false, nullptr},
    {M_HELP_ABOUT, "~About Velmar...", true, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};
