#pragma once

// xcb/xkb.h is C and has a field named `explicit`.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit
