#include "check_run.h"

int main(int argc, char** argv) { return bt::CheckMain(argc, argv); }
