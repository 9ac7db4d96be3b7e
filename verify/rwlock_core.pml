/* The queued reader-writer lock, as inlines that carry the names of the steps in sd/sdrwlock. Included by the models
 * that use the lock. A statement is one access to shared memory; what the processor does in one step is atomic here, a
 * compare-exchange loop included, since its retries leave no trace.
 *
 * A process that uses the lock is thread number `me`, owns node number `me`, and has these variables:
 *     byte me, oth = NIL; short old = 0; bit res = 0;
 *
 * Switches
 *   N        number of threads
 *   SHORT    the short ways: bit 0 for readers that enter, bit 1 for writers that enter and leave (the lock is aligned
 *            for them). Default 3, both
 *   SLEEP    waiters sleep in the node's mutex and condition; else they spin
 *   SPUR     number of wake-ups without a signal that a run may see
 *   LATEHEAD the short way's store of pWriterHead may wait in the thread's store buffer until its next locked
 *            instruction
 *   LIFE     1: a thread that ends destroys its node; whoever touches it later is an error
 *            2: the same, the destroyer passing through the node's mutex first
 *   TWOSTEP  broken on purpose: QUEUED and CLAIM set one after the other
 *   LOOSE    broken on purpose: a reader's short way looks, then counts
 *   LOOP     runs have no end: a compare-exchange loop is then let through at its first try
 */
#define NIL     255
#define QUEUED  1            /* RWLOCK_WRITER_QUEUED */
#define CLAIM   2            /* RWLOCK_WRITER_CLAIM */
#define WAITING 4            /* RWLOCK_READERS_WAITING */
#define READER  8            /* RWLOCK_READER_UNIT */
#define WRITER_FLAGS (QUEUED + CLAIM)
#define FLAGS   (QUEUED + CLAIM + WAITING)

#ifndef SHORT
#define SHORT 3
#endif
#ifndef LIFE
#define LIFE 0
#endif

byte rhead = NIL, whead = NIL, wtail = NIL;   /* pReaderHead, pWriterHead, pWriterTail */
short word = 0;                               /* lRdrCntAndFlags */
bit  blocked[N];                              /* of the nodes: bBlocked, pQNext, bSuspended, mutex */
byte qnext[N] = NIL;
#ifdef SLEEP
bit  susp[N], mtx[N], asleep[N];
#ifdef SPUR
byte spur = SPUR;
#endif
#endif

#if LIFE
bit gone[N];
#define ALIVE(n) assert(!gone[n])
#else
#define ALIVE(n) skip
#endif

#ifdef LATEHEAD
byte headbuf = NIL;                           /* a store of pWriterHead on its way */
#define DRAINED if :: headbuf == me -> whead = headbuf; headbuf = NIL :: else fi
active proctype StoreBuffer() {
end:	do
	:: atomic { headbuf != NIL -> whead = headbuf; headbuf = NIL }
	od
}
#else
#define DRAINED skip
#endif

/* ---- Letting a waiter in, and waiting */

inline letIn(n) {
	if
	:: atomic { !blocked[n] -> ALIVE(n) }
	:: atomic { blocked[n] -> ALIVE(n); DRAINED };
#ifdef SLEEP
		atomic { mtx[n] == 0 -> ALIVE(n); mtx[n] = 1 };
		if
		:: blocked[n] ->
			blocked[n] = 0;
			atomic { ALIVE(n);
			if
			:: susp[n] -> asleep[n] = 0
			:: else
			fi }
		:: else
		fi;
		atomic { ALIVE(n); mtx[n] = 0 }
#else
		atomic { ALIVE(n); blocked[n] = 0 }
#endif
	fi
}

inline waitUntilLetIn() {
#ifdef SLEEP
	do
	:: !blocked[me] -> break
	:: blocked[me] ->
		atomic { mtx[me] == 0 -> mtx[me] = 1 };
		if
		:: blocked[me] ->
			susp[me] = 1;
			atomic { asleep[me] = 1; mtx[me] = 0 };
			if
			:: atomic { !asleep[me] && mtx[me] == 0 -> mtx[me] = 1 }
#ifdef SPUR
			:: atomic { spur > 0 && asleep[me] && mtx[me] == 0 -> spur--; asleep[me] = 0; mtx[me] = 1 }
#endif
			fi;
			atomic { susp[me] = 0; mtx[me] = 0 }
		:: else -> mtx[me] = 0
		fi
	od
#else
	!blocked[me]
#endif
}

/* ---- Steps of the protocol */

/* slf: the leader that admits itself, or NIL for a writer */
inline admitReaders(slf) {
	atomic { assert(word & WAITING); word = word + WAITING };
	old = word;
	if
	:: (old & WRITER_FLAGS) == QUEUED -> old = 0; word = word | CLAIM
	:: else -> old = 0
	fi;
	atomic { oth = rhead; rhead = NIL; assert(oth != NIL) };
	if
	:: oth == slf -> blocked[me] = 0
	:: else -> letIn(oth)
	fi;
	oth = NIL
}

/* res: the writer may enter */
inline headQueue(writer) {
	whead = writer;
#ifdef TWOSTEP
	atomic { old = word; word = word | QUEUED };
	if
	:: old & WAITING -> atomic { res = 0; old = 0 }
	:: else -> atomic { old = word; word = word | CLAIM; res = (old < READER); old = 0 }
	fi
#else
	atomic {
		if
		:: word & WAITING -> word = word | QUEUED; res = 0
		:: else -> res = (word < READER); word = word | WRITER_FLAGS
		fi }
#endif
}

inline enterWrite() {
	blocked[me] = 1;
	atomic { qnext[me] = NIL; oth = wtail; wtail = me };
	if
	:: oth != NIL -> atomic { ALIVE(oth); qnext[oth] = me; oth = NIL }
	:: else -> headQueue(me);
		if
		:: res -> res = 0; blocked[me] = 0
		:: else
		fi
	fi;
	waitUntilLetIn()
}

inline leaveWrite() {
	oth = qnext[me];
	if
	:: oth != NIL -> letIn(oth)
	:: else ->
		atomic { DRAINED; old = word; word = word & ~WRITER_FLAGS };
		if
		:: old & WAITING -> old = 0; admitReaders(NIL)
		:: else -> old = 0
		fi;
		atomic {                                      /* leaveTail */
			if
			:: wtail == me -> wtail = NIL; res = 1
			:: else -> res = 0
			fi };
		if
		:: res -> res = 0
		:: else ->
			atomic { qnext[me] != NIL -> oth = qnext[me] };   /* lateSuccessor */
			headQueue(oth);
			if
			:: res -> res = 0; letIn(oth)
			:: else
			fi
		fi
	fi;
	oth = NIL
}

inline enterRead() {
	blocked[me] = 1;
	atomic { oth = rhead; rhead = me; qnext[me] = oth };
	if
	:: oth != NIL ->                                      /* followReaders */
		waitUntilLetIn();
		word = word + READER;
		letIn(oth)
	:: else ->                                            /* leadReaders */
		atomic { old = word; word = word | WAITING };
		if
		:: old & WRITER_FLAGS -> old = 0
		:: else -> old = 0; admitReaders(me)
		fi;
		waitUntilLetIn()
	fi;
	oth = NIL
}

inline letHeadWriterIn() {
	oth = whead;
	letIn(oth);
	oth = NIL
}

/* ---- The short ways; res: that was all */

inline enterReadAtOnce() {
#ifdef LOOSE
	if
	:: (word & FLAGS) == 0 -> atomic { word = word + READER; qnext[me] = NIL; res = 1 }
	:: else -> res = 0
	fi
#elif defined(LOOP)
	atomic {
		if
		:: (word & FLAGS) == 0 && rhead == NIL -> word = word + READER; qnext[me] = NIL; res = 1
		:: else -> res = 0
		fi }
#else
	old = word;
	do
	:: (old & FLAGS) || rhead != NIL -> atomic { res = 0; old = 0; break }
	:: (old & FLAGS) == 0 && rhead == NIL ->
		atomic {
			if
			:: word == old -> word = word + READER; qnext[me] = NIL; res = 1; old = 0; break
			:: else -> old = word
			fi }
	od
#endif
}

inline leaveReadAtOnce() {
	atomic { DRAINED; assert(word >= READER);
		res = ((word & ~WAITING) != READER + WRITER_FLAGS);
		word = word - READER }
}

inline enterWriteAtOnce() {
	atomic {
		qnext[me] = NIL;
		if
		:: wtail == NIL && word == 0 -> wtail = me; word = WRITER_FLAGS; res = 1
		:: else -> res = 0
		fi };
	if
#ifdef LATEHEAD
	:: res -> atomic { assert(headbuf == NIL); headbuf = me }
#else
	:: res -> whead = me
#endif
	:: else
	fi
}

inline leaveWriteAtOnce() {
	atomic { DRAINED;
		if
		:: wtail == me && word == WRITER_FLAGS -> wtail = NIL; word = 0; res = 1
		:: else -> res = 0
		fi }
}

/* ---- What the other models use */

inline START_WRITE() {
#if SHORT & 2
	enterWriteAtOnce();
	if
	:: res -> res = 0
	:: else -> enterWrite()
	fi
#else
	enterWrite()
#endif
}

inline END_WRITE() {
#if SHORT & 2
	leaveWriteAtOnce();
	if
	:: res -> res = 0
	:: else -> leaveWrite()
	fi
#else
	leaveWrite()
#endif
}

inline START_READ() {
#if SHORT & 1
	enterReadAtOnce();
	if
	:: res -> res = 0
	:: else -> enterRead()
	fi
#else
	enterRead()
#endif
}

inline END_READ() {
	leaveReadAtOnce();
	if
	:: res -> res = 0
	:: else -> letHeadWriterIn()
	fi
}
