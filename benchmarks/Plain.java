/** What the library is measured against: see plain.cpp. One call at a time, as with the library. */
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

    /** Opens a session of its own in the first slot of a module that is initialised already. */
    static native void bind(String module);

    /** Does the work in C alone. */
    static native void repeatInC(int work, long times);

    static synchronized native byte[] sign(long slotIndex, byte[] data);

    static synchronized native byte[] signWithID(long slotIndex, byte[] data, byte[] id);

    static synchronized native byte[][] readAllCertificates(long slotIndex);

    static synchronized native long getSlotInfo(long slotIndex);
}
