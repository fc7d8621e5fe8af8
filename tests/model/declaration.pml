/* The orders of a segment's `flags`, on a machine that reorders.
 *
 * A provider declares a topic: it stores type and size and then sets VALID. A reader that finds VALID
 * set reads type and size. And a provider declares a topic again that has a value of two words: it
 * clears HAS_VALUE and then the words, while a reader makes an attempt at a consistent read. The
 * stores of a provider become visible in any order that its barriers leave open, and a reader's loads
 * are done in any order that its own leave open. The claim:
 *
 *     Who finds VALID set reads what was declared, and an attempt that sees HAS_VALUE set all the time
 *     has copied no word that was cleared.
 *
 * -DNO_RELEASE takes away the release of VALID, -DNO_ACQUIRE the acquire of its load, -DNO_BARRIER the
 * barrier behind the clearing of HAS_VALUE, -DNO_ORDER_LOADS the one before the attempt's second look:
 * each lets the claim fail.
 */

/* What all processors see. */
bool valid = false;
bool declared[2] = false; /* type and size */
bool has_value = true;
bool word[2] = true; /* of the value: true until it is cleared */

proctype provider()
{
    bool valid_done, done[2];

    do
    :: atomic { !done[0] -> declared[0] = true; done[0] = true }
    :: atomic { !done[1] -> declared[1] = true; done[1] = true }
#ifdef NO_RELEASE
#define MAY_SET_VALID true
#else
#define MAY_SET_VALID (done[0] && done[1])
#endif
    :: atomic { MAY_SET_VALID && !valid_done -> valid = true; valid_done = true }
    :: valid_done && done[0] && done[1] -> break
    od
}

proctype reader()
{
    bool found_valid, found[2], looked, loaded[2];

    do
    :: atomic { !looked -> found_valid = valid; looked = true }
#ifdef NO_ACQUIRE
#define MAY_LOAD true
#else
#define MAY_LOAD looked
#endif
    :: atomic { MAY_LOAD && !loaded[0] -> found[0] = declared[0]; loaded[0] = true }
    :: atomic { MAY_LOAD && !loaded[1] -> found[1] = declared[1]; loaded[1] = true }
    :: looked && loaded[0] && loaded[1] -> break
    od;
    assert(!found_valid || (found[0] && found[1]))
}

proctype provider_again()
{
    bool flag_done, done[2];

    do
    :: atomic { !flag_done -> has_value = false; flag_done = true }
#ifdef NO_BARRIER
#define MAY_CLEAR true
#else
#define MAY_CLEAR flag_done
#endif
    :: atomic { MAY_CLEAR && !done[0] -> word[0] = false; done[0] = true }
    :: atomic { MAY_CLEAR && !done[1] -> word[1] = false; done[1] = true }
    :: flag_done && done[0] && done[1] -> break
    od
}

proctype attempt()
{
    bool first, second, third, copy[2], equal[2];
    bool looked_first, copied[2], looked_second, compared[2], looked_third;

    do
    :: atomic { !looked_first -> first = has_value; looked_first = true }
    :: atomic { looked_first && !copied[0] -> copy[0] = word[0]; copied[0] = true }
    :: atomic { looked_first && !copied[1] -> copy[1] = word[1]; copied[1] = true }
#ifdef NO_ORDER_LOADS
#define MAY_LOOK_AGAIN looked_first
#define MAY_LOOK_LAST looked_second
#else
#define MAY_LOOK_AGAIN (copied[0] && copied[1])
#define MAY_LOOK_LAST (compared[0] && compared[1])
#endif
    :: atomic { MAY_LOOK_AGAIN && !looked_second -> second = has_value; looked_second = true }
    :: atomic { looked_second && copied[0] && !compared[0] ->
                equal[0] = (word[0] == copy[0]); compared[0] = true }
    :: atomic { looked_second && copied[1] && !compared[1] ->
                equal[1] = (word[1] == copy[1]); compared[1] = true }
    :: atomic { MAY_LOOK_LAST && !looked_third -> third = has_value; looked_third = true }
    :: looked_third && compared[0] && compared[1] -> break
    od;
    assert(!(first && second && third && equal[0] && equal[1]) || (copy[0] && copy[1]))
}

init
{
    atomic { run provider(); run reader(); run provider_again(); run attempt() }
}
