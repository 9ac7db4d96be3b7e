/* The chunk exchange, one slot, step by step as its functions are named.
 *
 * A buffer holds CAP units of payload; a unit's content is its number in the writer's stream. Units are copied one by
 * one. A semaphore may take any value, and being binary is proved.
 *   FLOW    ONEWAY  a writer makes OPS calls as it likes: a piece of 1..MAXP units, split or whole, flushed or gathered;
 *                   or a code. The last one sends everything. A reader takes the same pieces and codes
 *           BOTH    the same in both directions at once, four threads
 *           TALK    a client and a server, ROUNDS requests with their replies
 *           CROSSED both send two messages before either reads
 *   PORTIONS  the reader takes a piece in portions of its own
 *   RCODE     it may fetch a code by a code read, and with
 *     MIDCODE also while it has unread units, which are then dropped with all before the code; the last call is a code
 *     KEEPBUFFER that read keeps the buffer with the unread units
 *     KEEPSIZE that read leaves the size of what travelled with the code
 *   MERGE     it may ask for two pieces in one read, although the first did not fill its buffer
 *   NOWAIT    time-out 0: a request that finds nothing waits and takes, but reports that time ran out; the caller
 *             tries again
 *   GOES      the semaphore set may be removed at any moment: whoever waits or posts is refused, and gives up
 * Proved: no two are in a buffer at once, every unit arrives once and in order, no run gets stuck, and in the end all
 * is idle. */
#define ONEWAY 0
#define TALK 1
#define CROSSED 2
#define BOTH 3
#ifndef FLOW
#define FLOW ONEWAY
#endif
#ifndef CAP
#define CAP 3
#endif
#ifndef OPS
#define OPS 3
#endif
#ifndef MAXP
#define MAXP 4
#endif
#ifndef ROUNDS
#define ROUNDS 2
#endif
#ifdef MIDCODE
#define PIECES OPS - 1
#else
#define PIECES OPS
#endif
#if FLOW == ONEWAY
#define DIRECTIONS 1
#else
#define DIRECTIONS 2
#endif

byte dataReady[DIRECTIONS], bufferFree[DIRECTIONS] = 1;
byte headerCode[DIRECTIONS], headerSize[DIRECTIONS], payload[DIRECTIONS * CAP];  /* the shared buffers */
byte gathered[DIRECTIONS], writePlace[DIRECTIONS];                               /* the writers' records */
byte unread[DIRECTIONS], readPlace[DIRECTIONS];                                  /* the readers' records */
bit removed;

/* ghosts: the next unit to write and to read; who is inside a buffer; what the writer did; who has finished */
byte written[DIRECTIONS], taken[DIRECTIONS];
bit writerInside[DIRECTIONS], readerInside[DIRECTIONS];
chan made[DIRECTIONS] = [OPS] of { byte, byte, byte };  /* code, length, first unit */
byte done;

#if defined(NOWAIT)
#define REQUEST(s) if :: atomic { s > 0 -> s--; refused = 0 } :: s == 0 -> atomic { s > 0 -> s--; refused = 1 } fi
#define POST(s) atomic { assert(s == 0); s++ }
#elif defined(GOES)
#define REQUEST(s) if :: atomic { !removed && s > 0 -> s--; refused = 0 } :: removed -> refused = 1 fi
#define POST(s) if :: atomic { !removed -> assert(s == 0); s++ } :: removed -> refused = 1 fi
#else
#define REQUEST(s) atomic { s > 0 -> s--; refused = 0 }
#define POST(s) atomic { assert(s == 0); s++ }
#endif

/* ---- Writing: left, flush, split, count and refused are the caller's */

inline holdBuffer(d) {
	if
	:: gathered[d] == 0 -> REQUEST(bufferFree[d]);
		if
		:: !refused -> writePlace[d] = 0
		:: else
		fi
	:: else
	fi
}

inline gather(d) {
	atomic { assert(!readerInside[d]); writerInside[d] = 1 };
	do
	:: count > 0 -> atomic { payload[d * CAP + writePlace[d]] = written[d]; written[d]++;
		writePlace[d]++; gathered[d]++; count--; left-- }
	:: else -> break
	od;
	writerInside[d] = 0
}

inline send(d, code) {
	atomic { assert(!readerInside[d]); headerCode[d] = code; headerSize[d] = gathered[d] };
	POST(dataReady[d]);
	atomic { gathered[d] = 0; writePlace[d] = 0 }
}

inline write(d) {
	refused = 0;
	do
	:: left == 0 -> break
	:: left > 0 -> holdBuffer(d);
		if
		:: refused -> break
		:: else
		fi;
		if
		:: left <= CAP - writePlace[d] || split ->
			count = (left <= CAP - writePlace[d] -> left : CAP - writePlace[d]);
			gather(d);
			if
			:: !flush && writePlace[d] < CAP -> assert(left == 0); break
			:: else
			fi
		:: else -> flush = 1
		fi;
		assert(gathered[d] > 0);
		send(d, 0);
		if
		:: refused -> break
		:: else
		fi
	od
}

inline writeCode(d, code) {
	refused = 0;
	holdBuffer(d);
	if
	:: !refused -> send(d, code)
	:: else
	fi
}

/* ---- Reading: wanted, count, got and refused are the caller's; got is the code that came, 0 for none */

inline receive(d) {
	REQUEST(dataReady[d]);
	if
	:: !refused -> atomic { got = headerCode[d]; unread[d] = headerSize[d]; readPlace[d] = 0 }
	:: else
	fi
}

inline takeCode(d) { unread[d] = 0; POST(bufferFree[d]) }

inline copyBytes(d) {
	atomic { assert(!writerInside[d]); readerInside[d] = 1 };
	count = (wanted <= CAP - readPlace[d] -> wanted : CAP - readPlace[d]);
	do
	:: count > 0 -> atomic { assert(unread[d] > 0); assert(payload[d * CAP + readPlace[d]] == taken[d]);
		taken[d]++; readPlace[d]++; unread[d]--; count--; wanted-- }
	:: else -> break
	od;
	readerInside[d] = 0
}

inline read(d) {
	atomic { got = 0; refused = 0 };
	do
	:: wanted == 0 -> break
	:: wanted > 0 ->
		if
		:: unread[d] == 0 -> receive(d);
			if
			:: refused -> break
			:: !refused && got != 0 -> takeCode(d); break
			:: else
			fi
		:: else
		fi;
		copyBytes(d);
		if
		:: unread[d] == 0 -> POST(bufferFree[d]);
			if
			:: refused -> break
			:: else
			fi
		:: else
		fi
	od
}

inline readCode(d) {
	refused = 0;
#ifndef KEEPBUFFER
	if
	:: unread[d] > 0 -> unread[d] = 0; POST(bufferFree[d])
	:: else
	fi;
#endif
	if
	:: !refused -> receive(d);
		if
		:: !refused ->
#ifdef KEEPSIZE
			POST(bufferFree[d])
#else
			takeCode(d)
#endif
		:: else
		fi
	:: else
	fi
}

/* ---- The processes */

proctype Writer(byte d) {
	byte k = 0, left, count;
	bit flush, split, refused;
	do
	:: k < OPS && !refused -> k++;
		if
		:: atomic { k <= PIECES -> select(left : 1 .. MAXP);
			if
			:: split = 1
			:: left <= CAP -> split = 0
			fi;
			if
			:: flush = 1
			:: k < OPS -> flush = 0
			fi };
			made[d] ! 0, left, written[d];
#ifdef NOWAIT
			do
			:: left > 0 -> write(d)
			:: else -> break
			od;
			refused = 0
#else
			write(d)
#endif
		:: made[d] ! 1, 0, written[d];
#ifdef NOWAIT
			do
			:: writeCode(d, 1);
				if
				:: refused
				:: else -> break
				fi
			od
#else
			writeCode(d, 1)
#endif
		fi;
		atomic { count = 0; left = 0; flush = 0; split = 0 }
	:: else -> break
	od;
	done++
}

/* A code ends what was written before it, so the reader passes over that in the list of what was made. */
inline passToCode(d) {
	atomic { do
		:: got != 0 && code == 0 -> made[d] ? code, length, first
		:: else -> break
		od }
}

proctype Reader(byte d) {
	byte wanted, count, got, code, length, first;
	bit refused;
	do
	:: atomic { made[d] ? code, length, first -> taken[d] = first };
		if
#ifdef RCODE
		:: atomic { dataReady[d] > 0 && headerCode[d] != 0 && unread[d] == 0 } -> readCode(d)
#endif
#ifdef MIDCODE
		:: unread[d] > 0 && code == 0 ->
			do
			:: readCode(d);
				if
				:: got != 0 || refused -> break
				:: else
				fi
			od
#endif
#ifdef MERGE
		:: atomic { code == 0 && nempty(made[d]) -> wanted = length; made[d] ? code, length, first; code = 0;
			wanted = wanted + length };
			read(d)
#endif
		:: code == 0 ->
			do
			:: length == 0 || got != 0 || refused -> break
			:: else ->
#ifdef PORTIONS
				select(wanted : 1 .. length); length = length - wanted;
#else
				wanted = length; length = 0;
#endif
#ifdef NOWAIT
				do
				:: wanted > 0 && got == 0 -> read(d)
				:: else -> break
				od;
				refused = 0
#else
				read(d)
#endif
			od
		:: code != 0 ->
#ifdef NOWAIT
			do
			:: got == 0 -> wanted = 1; read(d)
			:: else -> break
			od;
			refused = 0
#else
			wanted = 1; read(d);
			assert(got != 0 || refused)
#endif
		fi;
		if
		:: refused -> break
		:: else
		fi;
		passToCode(d);
		atomic { got = 0; wanted = 0; code = 0; length = 0; first = 0; count = 0 }
	:: done >= DIRECTIONS && empty(made[d]) -> break
	od
}

inline sendPiece(d) {
	select(left : 1 .. MAXP);
	atomic { split = 1; flush = 1; made[d] ! 0, left, written[d] };
	write(d)
}

inline takePiece(d) {
	atomic { made[d] ? code, wanted, count -> count = 0 };
	read(d)
}

proctype Party(bit server) {
	byte k = 0, left, count, wanted, got, code;
	bit flush, split, refused;
	do
	:: k < ROUNDS -> k++;
#if FLOW == CROSSED
		sendPiece(server);
		sendPiece(server);
		takePiece(1 - server)
#else
		if
		:: server -> takePiece(0); sendPiece(1)
		:: else -> sendPiece(0); takePiece(1)
		fi
#endif
	:: else -> break
	od;
	done++
}

#ifdef GOES
proctype Remover() {
	if
	:: removed = 1
	:: skip
	fi
}
#endif

init {
	atomic {
#if FLOW == ONEWAY || FLOW == BOTH
		byte i;
		for (i : 0 .. DIRECTIONS - 1) { run Writer(i); run Reader(i) }
#else
		run Party(0); run Party(1)
#endif
#ifdef GOES
		; run Remover()
#endif
	};
	(_nr_pr == 1);
	assert(removed || (dataReady[0] == 0 && unread[0] == 0 && gathered[0] == 0 && bufferFree[0] == 1))
}
