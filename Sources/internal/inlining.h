/** Inlining that is not left to the compiler. */
#ifndef KORVANE_INTERNAL_INLINING_H
#define KORVANE_INTERNAL_INLINING_H

/**
 * For what writers are passed through by reference: a writer stays in registers only where nothing
 * that takes it is called.
 */
#define KORVANE_ALWAYS_INLINE [[gnu::always_inline]] inline

#endif
