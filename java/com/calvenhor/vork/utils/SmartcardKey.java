package com.calvenhor.vork.utils;

import java.math.BigInteger;
import java.security.PrivateKey;
import java.security.interfaces.RSAKey;
import java.security.interfaces.RSAPublicKey;
import java.security.spec.AlgorithmParameterSpec;
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

    @Override
    public String toString() {
        return "RSA key with the ID " + HexFormat.of().formatHex(id) + " in slot " + slot.index();
    }
}
