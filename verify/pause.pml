/* Write leases and the write pause (sd/sdfio/pause.cpp) over the reader-writer lock, as inlines that carry the names of
 * the code's functions. A statement is one access to shared memory. An event is one bit, 1 set; its mutex makes each of
 * its operations one step.
 *
 * Threads 0 to NW - 1 take ROUNDS leases each, the next NP make PAUSES pauses each, and with OUTSIDE one more ends every
 * pause that it sees. A pause is ended, besides, by
 *   OWN      the thread that made it
 *   LIMIT    its time: at any moment it may be over
 *   TERM     the server: at any moment it may begin to terminate
 * A wait runs out only where it must: at the barrier when the pause is overdue or the server terminates, for the
 * pausing thread when the server terminates. So a thread that only its time-out would wake is stuck.
 *
 *   NOLOCK   the outsider has no memory for its place at the lock and ends pauses without it
 * Broken on purpose:
 *   PLAIN    the flag is raised by a plain store, which may wait in the processor's store buffer until the thread's next
 *            locked instruction
 *   ONELOOK  the pausing thread does not look at the count again after setting its event
 *   TWICE    a writer looks at the flag once for backing off and once more for going on
 *
 * Proved: nobody writes while a pause is in force; no run gets stuck; no lease is left over and the lock is free. */
#ifndef NW
#define NW 2
#endif
#ifndef NP
#define NP 1
#endif
#ifndef ROUNDS
#define ROUNDS 1
#endif
#ifndef PAUSES
#define PAUSES 1
#endif
#ifdef OUTSIDE
#define N (NW + NP + 1)
#else
#define N (NW + NP)
#endif
#include "rwlock_core.pml"

bit flag;                          /* bPauseWriteIO */
byte count;                        /* lBusyWriteIOCnt */
bit drain, barrier;                /* writeIOEvtHdl, pauseWriteIOEvtHdl */
bit overdue, terminating;
bit inForce; byte writing, done;   /* what the proof looks at */

#ifdef LIMIT
#define OVERDUE overdue
active proctype Clock() {
end:	do
	:: atomic { inForce && !overdue -> overdue = 1 }
	od
}
#else
#define OVERDUE false
#endif

#ifdef TERM
active proctype Server() { terminating = 1 }
#endif

#ifdef PLAIN
bit buffered;                      /* the raised flag on its way */
#define raiseFlag() buffered = 1
#define FLUSHED if :: buffered -> flag = 1; buffered = 0 :: else fi
active proctype FlagBuffer() {
end:	do
	:: atomic { buffered -> flag = 1; buffered = 0 }
	od
}
#else
#define raiseFlag() flag = 1
#define FLUSHED skip
#endif

/* With the flag lowered behind the pausing thread's back nobody wakes it: its slice of a second ends. */
#ifdef NOLOCK
#define SLICE (!flag && count == 0)
#else
#define SLICE false
#endif

inline countIn() { atomic { count++; busy = 1 } }
inline countOut() { atomic { assert(count > 0); count--; busy = 0 } }

/* What stands between KemSdStartRead and KemSdEndRW. */
inline lowerBarrier() {
	if
	:: flag -> atomic { flag = 0; inForce = 0 }; barrier = 0
	:: else
	fi
}

inline wakePausingThread() {
	if
	:: count == 0 -> drain = 0
	:: else
	fi
}

inline backOff() { countOut(); wakePausingThread() }

/* endPause() of a writer goes one level deeper in a lock that it holds. */
inline waitAtBarrier() {
	if
	:: !barrier -> late = 0
	:: barrier && (terminating || OVERDUE) -> late = 1
	fi;
	if
	:: terminating -> lowerBarrier(); countIn()
	:: else ->
		if
		:: !late -> countIn()
		:: late && OVERDUE -> lowerBarrier()
		:: else
		fi
	fi;
	late = 0
}

inline waitForLease() {
	START_READ();
	do
	:: waitAtBarrier();
#ifdef TWICE
		if
		:: flag && busy -> backOff()
		:: else
		fi;
		if
		:: !flag && busy -> break
		:: else
		fi
#else
		if
		:: flag ->
			if
			:: busy -> backOff()
			:: else
			fi
		:: else ->
			if
			:: busy -> break
			:: else
			fi
		fi
#endif
	od;
	END_READ()
}

inline takeLease() {
	countIn();
#ifdef TWICE
	if
	:: flag -> backOff()
	:: else
	fi;
	if
	:: !flag && busy
	:: else -> waitForLease()
	fi
#else
	if
	:: !flag
	:: else -> backOff(); waitForLease()
	fi
#endif
}

inline giveLeaseBack() {
	countOut();
	if
	:: flag -> wakePausingThread()
	:: else
	fi
}

proctype Writer(byte me) {
	byte round = 0, oth = NIL;
	short old = 0;
	bit res = 0, busy = 0, late = 0;
	do
	:: round < ROUNDS -> round++;
		takeLease();
		atomic { assert(!inForce); writing++ };
		writing--;
		giveLeaseBack()
	:: else -> break
	od;
	done++
}

/* From here on nobody writes. Without the lock the pause may have been ended already. */
inline begin() {
	assert(writing == 0);
#ifdef NOLOCK
	inForce = flag;
#else
	inForce = 1;
#endif
	overdue = 0; made = 1
}

/* made stays 0 when the server terminates. */
inline drainLeases() {
	do
	:: atomic { count == 0 -> begin(); break }
	:: count > 0 ->
		atomic { FLUSHED; drain = 1 };
#ifndef ONELOOK
		if
		:: atomic { count == 0 -> begin(); break }
		:: count > 0
		fi;
#endif
		if
		:: !drain
		:: drain && (terminating || SLICE)
		fi;
		if
		:: terminating -> break
		:: else
		fi
	od
}

inline beginPause() {
	if
	:: flag                                   /* made by another meanwhile: refused */
	:: else -> barrier = 1; raiseFlag(); drainLeases(); atomic { FLUSHED }
	fi
}

proctype Pauser(byte me) {
	byte round = 0, oth = NIL;
	short old = 0;
	bit res = 0, made = 0;
	do
	:: round < PAUSES -> round++;
		if
		:: flag                               /* refused */
		:: else ->
			START_WRITE(); beginPause(); END_WRITE();
#ifdef OWN
			if
			:: made -> START_READ(); lowerBarrier(); END_READ()
			:: else
			fi;
#endif
			made = 0
		fi
	:: else -> break
	od;
	done++
}

#ifdef OUTSIDE
proctype Outsider(byte me) {
	byte oth = NIL;
	short old = 0;
	bit res = 0;
	do
#ifdef NOLOCK
	:: flag -> lowerBarrier()
#else
	:: flag -> START_READ(); lowerBarrier(); END_READ()
#endif
	:: done == N - 1 -> break
	od;
	done++
}
#endif

init {
	byte i;
	atomic {
		for (i : 0 .. NW - 1) { run Writer(i) };
		for (i : NW .. NW + NP - 1) { run Pauser(i) };
#ifdef OUTSIDE
		run Outsider(NW + NP)
#endif
	};
	done == N;
	assert(count == 0 && word == 0)
}
#ifdef FINISH
ltl everybodyFinishes { <> (done == N) }
#endif
