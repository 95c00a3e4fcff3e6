// As hostile_macros.h, for names that the standard headers use or define: these come after the standard headers. Not
// here: swap, which the library takes from them, and the names of standard attributes.

// Taken away by the standard headers
#define max(a, b) hostile_macro_expanded @
#define min(a, b) hostile_macro_expanded @

// In their declarations
#define abs(x) hostile_macro_expanded @
#define assert(x) hostile_macro_expanded @
#define clamp(a, b, c) hostile_macro_expanded @
#define current hostile_macro_expanded @
#define fail(x) hostile_macro_expanded @
#define printf hostile_macro_expanded @
