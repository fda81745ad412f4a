/** What the library is measured against: see plain.cpp. */
final class Plain {
    static final int SIGN = 0;
    static final int SIGN_WITH_ID = 1;
    static final int LIST = 2;
    static final int QUERY = 3;

    static {
        System.loadLibrary("plain");
    }

    private Plain() {
    }

    /** Opens a session of its own in the first slot of a module that somebody has initialised. */
    static native void bind(String module);

    /** Does the work in C alone. */
    static native void repeatInC(int work, long times, byte[] data, byte[] id);

    static native byte[] sign(long slotIndex, byte[] data);

    static native byte[] signWithID(long slotIndex, byte[] data, byte[] id);

    static native byte[][] readAllCertificates(long slotIndex);

    static native long getSlotInfo(long slotIndex);

    /** The same, one thread at a time. */
    static synchronized native long getSlotInfoSynchronized(long slotIndex);
}
