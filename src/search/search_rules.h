// The search rule store, as the dialog manager sees it.
#pragma once

// Told when a preference or search dialog changes the rules.
void SRCH_RuleStoreListener(int what, void* data);
