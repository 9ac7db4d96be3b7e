/* The queued reader-writer lock: N threads, each with ROUNDS acquisitions.
 *   MIX     0 every acquisition reads or writes, as it likes; 1, 2, 3 that many writers, the others read; 4 writers only
 *   NEST    an acquisition may be nested once
 *   LOOP    the threads go on for ever; LTLW names the one whose waits must all end
 *   NOEND   the state at the end is not looked at
 * Proved: a writer is alone; no run gets stuck, which without an endless wait means that no wake-up is lost; nothing is
 * left behind. */
#ifndef N
#define N 3
#endif
#ifndef ROUNDS
#define ROUNDS 2
#endif
#ifndef MIX
#define MIX 0
#endif
#include "rwlock_core.pml"

byte readers, writers, done;
#ifdef LOOP
bit wants[N];
#endif

inline aloneInside() { assert(!blocked[me] && readers == 0 && writers == 0); writers++ }
inline noWriterInside() { assert(!blocked[me] && writers == 0); readers++ }

proctype Thread(byte me) {
	byte round = 0, oth = NIL;
	short old = 0;
	bit res = 0, writes = 0;
#ifdef NEST
	byte depth = 0;
#endif
	do
	:: round < ROUNDS ->
		atomic { assert(!blocked[me]);
			if
			:: MIX == 0 || (MIX < 4 && me >= MIX) -> writes = 0
			:: MIX == 0 || MIX == 4 || me < MIX -> writes = 1
			fi;
#ifdef LOOP
			wants[me] = 1
#else
			round++
#endif
		};
		if
		:: writes -> START_WRITE();
			atomic { aloneInside()
#ifdef LOOP
				; wants[me] = 0
#endif
			}
		:: else -> START_READ();
			atomic { noWriterInside()
#ifdef LOOP
				; wants[me] = 0
#endif
			}
		fi;
#ifdef NEST
		depth = 1;                 /* a nested acquisition touches nothing but the node's depth */
		if
		:: depth++
		:: skip
		fi;
		do
		:: depth > 1 -> depth--
		:: else -> depth = 0; break
		od;
#endif
		if
		:: writes -> writers--; END_WRITE()
		:: else -> readers--; END_READ()
		fi;
		writes = 0
	:: else -> break
	od;
#if LIFE == 2
#ifdef SLEEP
	atomic { mtx[me] == 0 -> mtx[me] = 1 };
	mtx[me] = 0;
#endif
#endif
#if LIFE
	gone[me] = 1;
#endif
	done++
}

init {
	byte i;
	atomic {
		for (i : 0 .. N - 1) { run Thread(i) }
	};
	done == N;
#ifndef NOEND
	assert(word == 0 && rhead == NIL && wtail == NIL)
#endif
}
#ifdef LTLW
ltl served { [] (wants[LTLW] -> <> !wants[LTLW]) }
#endif
