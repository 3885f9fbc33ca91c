/*
 * page - the bytes of page.html, compiled in.
 */
#pragma once
#include <stdint.h>

extern const unsigned char page[];
extern const int32_t page_length; /* bytes; no zero follows them */
