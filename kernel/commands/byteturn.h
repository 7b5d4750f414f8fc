// byteturn: the conversion run, from the command line to the final line.
#pragma once

namespace bt {

int ByteturnMain(int argc, const char* const* argv);

}  // namespace bt
