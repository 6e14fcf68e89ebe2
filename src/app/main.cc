#include "src/app/workspace.h"

int main(int argc, char** argv) { return velmar_main(argc, argv); }
