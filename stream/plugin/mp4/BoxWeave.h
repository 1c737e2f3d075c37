#pragma once

#define BOXWEAVE_BANNER "boxweave@version:2.0.2.*.8ed0fe8"

extern "C" void RegisterBoxWeave();
