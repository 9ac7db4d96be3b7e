// A module that cannot be loaded: data has to be there when the module comes, and this is nowhere.
extern "C" {

extern int kemsdTestMissingData;

int kemsdTestReadsMissing() { return kemsdTestMissingData; }
}
