#pragma once

// Marks the C functions that a protocol module or a library offers; everything else stays hidden.
#define TARN_EXPORT __attribute__((visibility("default")))
