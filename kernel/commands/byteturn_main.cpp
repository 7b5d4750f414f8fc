#include "byteturn.h"

int main(int argc, char** argv) { return bt::ByteturnMain(argc, argv); }
