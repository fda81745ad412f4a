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
 * A private key on the token, identified by slot and ID. It has no object handle, so it stays valid in a later session.
 *
 * @param publicKey the public key of its certificate, which verifies each signature and gives the JDK the key size
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

    /** On JDK 22 or later, PrivateKey and RSAKey both have a default getParams: without this override a call fails. */
    @Override
    public AlgorithmParameterSpec getParams() {
        return null;
    }

    /** The equals of a record would compare the IDs by reference, so keys of two loads would never be equal. */
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
        return "RSA key with " + describeId();
    }

    String describeId() {
        return "the ID " + HexFormat.of().formatHex(id) + " in slot " + slot.index();
    }

    /** Throws unless the token signs with this key and the public key verifies the signature. */
    void requireValidSignature() throws GeneralSecurityException {
        SmartcardSignature signature = new SmartcardSignature(SmartcardSignature.Algorithm.SHA256withRSA);
        signature.engineInitSign(this);
        signature.engineUpdate((byte) 0);
        signature.engineSign();
    }
}
