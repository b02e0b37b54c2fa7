// The base of the exceptions that the suite's libraries define.
#pragma once

#include <vbx/mem/export.h>

// Has no state of its own: all that a derived class adds is its text.
class VBX_MEM_API ERR_EXCEPTION {
  public:
    ERR_EXCEPTION();
    ERR_EXCEPTION(const ERR_EXCEPTION&);
    ERR_EXCEPTION& operator=(const ERR_EXCEPTION&);
    virtual ~ERR_EXCEPTION();

    // Returns one line of text that tells what happened; never null, valid as long as the exception
    virtual const char* report() const;
};
