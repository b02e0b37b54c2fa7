// Marks what libvbx_mem exports; everything else in it is hidden.
#pragma once

#define VBX_MEM_API __attribute__((visibility("default")))
