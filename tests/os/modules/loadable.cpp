// A module that can be loaded although one of the functions that it calls is nowhere: functions are bound at their
// first call.
extern "C" {

int kemsdTestMissing(int);

int kemsdTestDouble(int value) { return 2 * value; }

int kemsdTestUnbound(int value) { return kemsdTestMissing(value); }
}
