package com.calvenhor.vork.utils;

import com.calvenhor.vork.utils.SmartcardSlot.PublicKey;
import java.io.IOException;
import java.math.BigInteger;
import java.security.GeneralSecurityException;
import java.security.InvalidAlgorithmParameterException;
import java.security.InvalidParameterException;
import java.security.KeyFactory;
import java.security.KeyPair;
import java.security.KeyPairGeneratorSpi;
import java.security.ProviderException;
import java.security.SecureRandom;
import java.security.interfaces.RSAPublicKey;
import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.RSAKeyGenParameterSpec;
import java.security.spec.RSAPublicKeySpec;
import java.util.ArrayList;
import java.util.HexFormat;
import java.util.List;

/** Generates RSA key pairs on the token, with the IDs of {@link SmartcardWriter#idOf}. */
final class SmartcardKeyPairGenerator extends KeyPairGeneratorSpi {
    private static final int ID_LENGTH = 20; // of a SHA-1

    private final SmartcardProvider provider;
    private int bits = 2048;
    private BigInteger exponent = RSAKeyGenParameterSpec.F4;

    SmartcardKeyPairGenerator(SmartcardProvider provider) {
        this.provider = provider;
    }

    @Override
    public void initialize(int keySize, SecureRandom ignored) {
        if (keySize < 512) {
            throw new InvalidParameterException("a key of " + keySize + " bits is too short: the minimum is 512");
        }
        bits = keySize;
    }

    @Override
    public void initialize(AlgorithmParameterSpec parameters, SecureRandom ignored)
            throws InvalidAlgorithmParameterException {
        if (!(parameters instanceof RSAKeyGenParameterSpec rsa) || rsa.getKeyParams() != null
                || rsa.getPublicExponent() == null) {
            throw new InvalidAlgorithmParameterException("expected an RSAKeyGenParameterSpec with a public "
                    + "exponent and without key parameters");
        }
        initialize(rsa.getKeysize(), ignored);
        exponent = rsa.getPublicExponent();
    }

    @Override
    public KeyPair generateKeyPair() {
        try {
            provider.logInWith(provider.callbackHandler());
            synchronized (Smartcard.class) {
                SmartcardSlot slot = provider.open(null);
                slot.requireLogin();
                return generate(slot);
            }
        } catch (IOException | GeneralSecurityException e) {
            throw new ProviderException(e.getMessage(), e);
        }
    }

    /** The ID depends on the modulus, so the token generates the pair under an interim ID. */
    private KeyPair generate(SmartcardSlot slot) throws IOException, GeneralSecurityException {
        SmartcardWriter writer = new SmartcardWriter(slot);
        byte[] interimId = new byte[ID_LENGTH];
        new SecureRandom().nextBytes(interimId);
        List<byte[]> ids = new ArrayList<>(List.of(interimId));
        try {
            BigInteger modulus = writer.generateKeyPair(bits, exponent, interimId);
            RSAPublicKey publicKey = (RSAPublicKey) KeyFactory.getInstance("RSA")
                    .generatePublic(new RSAPublicKeySpec(modulus, exponent));
            SmartcardKey key = new SmartcardKey(slot, SmartcardWriter.idOf(modulus), publicKey);
            ids.add(key.id());
            writer.updateKeyPair(interimId, key.id(), SmartcardWriter.label(HexFormat.of().formatHex(key.id())));
            List<PublicKey> publicKeys = slot.publicKeys(key.id());
            if (publicKeys.size() != 1 || !publicKeys.get(0).isSameKeyAs(publicKey)) {
                throw new IOException("the token did not change the ID of the public key");
            }
            key.requireValidSignature();
            return new KeyPair(publicKey, key);
        } catch (IOException | GeneralSecurityException | RuntimeException e) {
            throw new ProviderException(e.getMessage() + deletePair(writer, ids), e);
        }
    }

    /** Deletes the pair; {@return what is left on the token, as the end of a message} */
    private static String deletePair(SmartcardWriter writer, List<byte[]> ids) {
        List<String> left = new ArrayList<>();
        for (byte[] id : ids) {
            try {
                left.addAll(writer.deleteKeyPair(id, true));
            } catch (IOException e) {
                left.add("unknown, because the token cannot be listed");
            }
        }
        return SmartcardChange.describeLeft(left);
    }
}
