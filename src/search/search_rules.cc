#include "src/search/search_rules.h"

// The rules themselves arrive with searching.
void SRCH_RuleStoreListener(int, void*) {}
