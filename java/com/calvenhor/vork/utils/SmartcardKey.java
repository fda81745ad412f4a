package com.calvenhor.vork.utils;

import java.math.BigInteger;
import java.security.GeneralSecurityException;
import java.security.PrivateKey;
import java.security.interfaces.RSAKey;
import java.security.interfaces.RSAPublicKey;
import java.security.spec.AlgorithmParameterSpec;
import java.util.Arrays;
import java.util.HexFormat;

/**
 * A private key by its place: no handle, so that it outlives its session, and no secret.
 *
 * @param slot where it is
 * @param id its ID there
 * @param publicKey its certificate's: it verifies each signature, and algorithms are chosen by its size
 */
record SmartcardKey(SmartcardSlot slot, byte[] id, RSAPublicKey publicKey) implements PrivateKey, RSAKey {
    @Override
    public String getAlgorithm() {
        return "RSA";
    }

    @Override
    public String getFormat() {
        return null;
    }

    @Override
    public byte[] getEncoded() {
        return null;
    }

    @Override
    public BigInteger getModulus() {
        return publicKey.getModulus();
    }

    /** From JDK 22 up both interfaces have it, and a class without its own dies when it is called. */
    @Override
    public AlgorithmParameterSpec getParams() {
        return null;
    }

    /** A record would compare the array by identity, and no key would equal that of another load. */
    @Override
    public boolean equals(Object other) {
        return other instanceof SmartcardKey key && slot.equals(key.slot) && Arrays.equals(id, key.id);
    }

    @Override
    public int hashCode() {
        return 31 * slot.hashCode() + Arrays.hashCode(id);
    }

    @Override
    public String toString() {
        return "RSA key with the ID " + HexFormat.of().formatHex(id) + " in slot " + slot.index();
    }

    /** Throws unless the token signs with this key what the public key verifies. */
    void requireSigns() throws GeneralSecurityException {
        SmartcardSignature signature = new SmartcardSignature(SmartcardSignature.Algorithm.SHA256withRSA);
        signature.engineInitSign(this);
        signature.engineUpdate((byte) 0);
        signature.engineSign();
    }
}
