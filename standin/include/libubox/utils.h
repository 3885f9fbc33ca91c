/*
 * utils - array sizes, packed records and byte order. Every macro evaluates its argument once.
 */
#pragma once
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(array) (sizeof(array) / sizeof((array)[0]))
#endif

#ifndef __packed
#define __packed __attribute__((packed))
#endif

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define cpu_to_be16(value) __builtin_bswap16(value)
#define cpu_to_be32(value) __builtin_bswap32(value)
#define cpu_to_be64(value) __builtin_bswap64(value)
#else
#define cpu_to_be16(value) ((uint16_t)(value))
#define cpu_to_be32(value) ((uint32_t)(value))
#define cpu_to_be64(value) ((uint64_t)(value))
#endif

#define be16_to_cpu(value) cpu_to_be16(value)
#define be32_to_cpu(value) cpu_to_be32(value)
#define be64_to_cpu(value) cpu_to_be64(value)
