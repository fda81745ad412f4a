/** The mock PKCS#11 module, shared with the library: one slot, a token with the PIN 1234 for everybody. */
final class MockModule {
    static final String PATH = System.getProperty("mock");

    static {
        System.load(PATH);
    }

    private MockModule() {
    }

    /** As freshly loaded, with one object of each kind, all of whose names are "mock". Not while it is bound. */
    static native void reset();

    /** Adds certificates with key pairs, IDs "id 1", "id 2" and so on, labels "label of id 1" and so on. */
    static native void addIdentities(int count);

    /** Fails the nth call of a function from now, the next one being 1. */
    static native void failAt(String function, int nth, long code);

    /** The names of the functions called since the last time, with a blank between two. */
    static native String takeCalls();

    static native long activeSearches();

    static native long openSessions();

    static native long objects();
}
