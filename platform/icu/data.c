// data.c -- includes the file ICU_DATA, a data package of ICU's, in a program under ICU's own name.
#ifdef __APPLE__
#define NAME    "_" ICU_DATA_SYMBOL
#define SECTION ".section __TEXT,__const\n.private_extern " NAME "\n"
#define END     ".subsections_via_symbols\n"
#else
#define NAME    ICU_DATA_SYMBOL
#define SECTION ".pushsection .rodata\n.hidden " NAME "\n.type " NAME ", %object\n"
#define END     ".size " NAME ", . - " NAME "\n.popsection\n"
#endif
__asm__(SECTION ".globl " NAME "\n.balign 16\n" NAME ":\n.incbin \"" ICU_DATA "\"\n" END);
