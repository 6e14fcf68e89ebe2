// Printing messages, to a printer or into a PDF file.
#pragma once

#include <vector>

#include "src/model/mm.h"

// Asks where to print, then prints each message from a new page. Returns the
// number of pages printed, 0 when cancelled or nothing could be printed.
int VIEW_PrintMessages(const std::vector<UMI>& umis);
