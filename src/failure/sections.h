#pragma once

// The real-time code and its constants stand in sections of their own, so that a host which locks
// or inspects pages can find them. RT_CODE goes in front of a function's definition, RT_CONST in
// front of a constant's.

#define RT_CODE __attribute__((section("RT_CODE")))
#define RT_CONST __attribute__((section("RT_CONST")))
