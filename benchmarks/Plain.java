/** Plain C and plain JNI functions, for comparison with the library: see plain.cpp. */
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

    /** Opens a session in the first slot of a module that the library has initialised. */
    static native void bind(String module);

    /** Repeats an operation in C, without JNI. */
    static native void repeatInC(int operation, long times);

    static synchronized native byte[] sign(long slotIndex, byte[] data);

    static synchronized native byte[] signWithID(long slotIndex, byte[] data, byte[] id);

    static synchronized native byte[][] readAllCertificates(long slotIndex);

    static synchronized native long getSlotInfo(long slotIndex);
}
