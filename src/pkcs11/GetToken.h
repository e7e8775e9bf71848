#pragma once
// Access to the library's one token for code outside the call frame (the
// call trace). Null while the library is not initialised; takes no lock.

struct P11Token;

P11Token* GetToken();
