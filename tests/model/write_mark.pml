/* The orders of a segment's `writing` byte, on a machine that reorders.
 *
 * A writer stores a value of two words between setting and clearing the byte; a reader that finds it
 * clear copies the two words. The writer's stores go into a buffer from which they become visible in
 * any order that the barriers leave open, and the reader's loads are done in any order that its own
 * leave open. The copy may be torn by a write that begins during it, which the format cannot
 * exclude. The claim is the rest:
 *
 *     A reader that finds the byte clear copies nothing older than the last write that was finished,
 *     and unless a write begins between its look and the end of its copy, both words are of one write.
 *
 * -DNO_BARRIER takes away the barrier after setting, -DNO_RELEASE the release of the clearing store,
 * -DNO_ACQUIRE the acquire of the load: each lets the claim fail.
 */
#define WRITES 2

/* What all processors see. */
byte writing = 0;
byte word[2] = 0;
/* The last write of which a store is visible, and the last one that cleared the byte. */
byte begun = 0;
byte finished = 0;

proctype writer()
{
    byte number;
    bool set_done, clear_done, word_done[2];

    for (number : 1 .. WRITES) {
        set_done = false; clear_done = false; word_done[0] = false; word_done[1] = false;
        do
        :: atomic { !set_done -> begun = number; writing = 1; set_done = true }
#ifdef NO_BARRIER
#define MAY_STORE_WORD true
#else
#define MAY_STORE_WORD set_done
#endif
        :: atomic { MAY_STORE_WORD && !word_done[0] -> begun = number; word[0] = number; word_done[0] = true }
        :: atomic { MAY_STORE_WORD && !word_done[1] -> begun = number; word[1] = number; word_done[1] = true }
#ifdef NO_RELEASE
        /* Stores to one address keep their order. */
        :: atomic { set_done && !clear_done -> writing = 0; clear_done = true; finished = number }
#else
        :: atomic { set_done && word_done[0] && word_done[1] && !clear_done ->
                    writing = 0; clear_done = true; finished = number }
#endif
        :: set_done && clear_done && word_done[0] && word_done[1] -> break
        od
    }
}

proctype reader()
{
    byte mark, begun_then, finished_then, copy[2];
    bool looked, copied[2];

    do
    :: atomic { !looked -> mark = writing; finished_then = finished; begun_then = begun; looked = true }
#ifdef NO_ACQUIRE
#define MAY_COPY true
#else
#define MAY_COPY looked
#endif
    :: atomic { MAY_COPY && !copied[0] -> copy[0] = word[0]; copied[0] = true }
    :: atomic { MAY_COPY && !copied[1] -> copy[1] = word[1]; copied[1] = true }
    :: looked && copied[0] && copied[1] -> break
    od;

    if
    :: mark == 0 ->
        assert(copy[0] >= finished_then && copy[1] >= finished_then);
        assert(begun != begun_then || copy[0] == copy[1])
    :: else
    fi
}

init
{
    atomic { run writer(); run reader() }
}
