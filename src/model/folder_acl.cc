// Stand-in until access rights land.
#include "src/model/model_internal.h"

int MM_CCACLParse(const char*) { return 0; }
