#include "driver/runsequence.h"

int main(int argc, char** argv) { return patchmgmt::RunTool(argc, argv); }
