#include "check.h"

int main(int argc, char** argv) { return bt::CheckMain(argc, argv); }
