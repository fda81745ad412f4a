import com.calvenhor.vork.utils.Smartcard;
import com.calvenhor.vork.utils.SmartcardProvider;
import java.io.IOException;
import java.net.URI;
import java.net.URLEncoder;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse.BodyHandlers;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Security;
import java.security.UnrecoverableKeyException;
import java.security.cert.Certificate;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.List;
import javax.net.ssl.HttpsURLConnection;
import javax.net.ssl.KeyManagerFactory;
import javax.net.ssl.SSLContext;
import javax.net.ssl.TrustManagerFactory;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.login.LoginException;
import javax.xml.crypto.dsig.CanonicalizationMethod;
import javax.xml.crypto.dsig.DigestMethod;
import javax.xml.crypto.dsig.Reference;
import javax.xml.crypto.dsig.SignedInfo;
import javax.xml.crypto.dsig.Transform;
import javax.xml.crypto.dsig.XMLSignatureFactory;
import javax.xml.crypto.dsig.dom.DOMSignContext;
import javax.xml.crypto.dsig.keyinfo.KeyInfo;
import javax.xml.crypto.dsig.keyinfo.KeyInfoFactory;
import javax.xml.crypto.dsig.spec.C14NMethodParameterSpec;
import javax.xml.crypto.dsig.spec.TransformParameterSpec;
import org.bouncycastle.cert.jcajce.JcaCertStore;
import org.bouncycastle.cms.CMSException;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedDataGenerator;
import org.bouncycastle.cms.jcajce.JcaSignerInfoGeneratorBuilder;
import org.bouncycastle.operator.ContentSigner;
import org.bouncycastle.operator.OperatorCreationException;
import org.bouncycastle.operator.jcajce.JcaContentSignerBuilder;
import org.bouncycastle.operator.jcajce.JcaDigestCalculatorProviderBuilder;
import org.w3c.dom.Document;

/** The snippets of docs/keystore.md. Tests compare and run them. */
final class KeyStoreRecipes {
    private KeyStoreRecipes() {
    }

    // ---- Signing ----

    static SSLContext clientContext(KeyStore token, KeyStore trusted) throws GeneralSecurityException {
        Security.addProvider(token.getProvider());
        KeyManagerFactory keys = KeyManagerFactory.getInstance("PKIX");
        keys.init(token, null);
        TrustManagerFactory anchors = TrustManagerFactory.getInstance("PKIX");
        anchors.init(trusted); // the CAs of the servers; null: the JDK's CAs
        SSLContext context = SSLContext.getInstance("TLSv1.2");
        context.init(keys.getKeyManagers(), anchors.getTrustManagers(), null);
        return context;
    }

    static String get(SSLContext context, URI uri) throws IOException, InterruptedException {
        HttpClient client = HttpClient.newBuilder().sslContext(context).build();
        return client.send(HttpRequest.newBuilder(uri).build(), BodyHandlers.ofString()).body();
    }

    static byte[] getOverConnection(SSLContext context, URI uri) throws IOException {
        HttpsURLConnection connection = (HttpsURLConnection) uri.toURL().openConnection();
        connection.setSSLSocketFactory(context.getSocketFactory());
        return connection.getInputStream().readAllBytes();
    }

    static byte[] signCms(KeyStore token, String alias, byte[] document)
            throws GeneralSecurityException, OperatorCreationException, CMSException, IOException {
        PrivateKey key = (PrivateKey) token.getKey(alias, null);
        Certificate[] chain = token.getCertificateChain(alias);
        ContentSigner signer = new JcaContentSignerBuilder("SHA256withRSA").setProvider(token.getProvider()).build(key);
        CMSSignedDataGenerator generator = new CMSSignedDataGenerator();
        generator.addSignerInfoGenerator(new JcaSignerInfoGeneratorBuilder(
                new JcaDigestCalculatorProviderBuilder().build()).build(signer, (X509Certificate) chain[0]));
        generator.addCertificates(new JcaCertStore(List.of(chain)));
        return generator.generate(new CMSProcessableByteArray(document)).getEncoded(); // without the document
    }

    static void signXml(KeyStore token, String alias, Document document) throws Exception {
        XMLSignatureFactory xml = XMLSignatureFactory.getInstance("DOM");
        Reference whole = xml.newReference("", xml.newDigestMethod(DigestMethod.SHA256, null),
                List.of(xml.newTransform(Transform.ENVELOPED, (TransformParameterSpec) null)), null, null);
        SignedInfo info = xml.newSignedInfo(xml.newCanonicalizationMethod(CanonicalizationMethod.EXCLUSIVE,
                (C14NMethodParameterSpec) null), xml.newSignatureMethod(
                "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256", null), List.of(whole));
        KeyInfoFactory infos = xml.getKeyInfoFactory();
        KeyInfo keyInfo = infos.newKeyInfo(List.of(infos.newX509Data(List.of(token.getCertificate(alias)))));
        DOMSignContext context = new DOMSignContext(token.getKey(alias, null), document.getDocumentElement());
        xml.newXMLSignature(info, keyInfo).sign(context);
    }

    // ---- Tokens, PINs and cards ----

    record Token(String label, String serialNumber, String name) {
    }

    static List<Token> tokens(String module) throws IOException {
        Recipes.check("initDLL", Smartcard.initDLL(module));
        List<Token> tokens = new ArrayList<>();
        for (long slot = 0; slot < Smartcard.getSlotCountDLL(); slot++) {
            if ((Smartcard.getTokenInfoDLL(slot) & 0x400) != 0) { // CKF_TOKEN_INITIALIZED
                String label = new String(Smartcard.readCardLabelDLL(slot), StandardCharsets.UTF_8).strip();
                String number = new String(Smartcard.readCardSerialNumberDLL(slot), StandardCharsets.UTF_8).strip();
                tokens.add(new Token(label, number, "pkcs11:token=" + encoded(label) + ";serial=" + encoded(number)
                        + "?module-path=" + encoded(module)));
            }
        }
        return tokens;
    }

    static String encoded(String text) {
        return URLEncoder.encode(text, StandardCharsets.UTF_8).replace("+", "%20");
    }

    static void changePin(SmartcardProvider provider, String oldPin, String newPin) throws IOException, LoginException {
        long slot = provider.slotIndex();
        Recipes.check("changePINDLL", Smartcard.changePINDLL(slot, oldPin, oldPin.length(), newPin, newPin.length()));
        provider.logout();
    }

    static void reload(KeyStore store, char[] pin) throws GeneralSecurityException, IOException {
        try {
            store.load(null, pin);
        } catch (IOException e) {
            if (e.getCause() instanceof UnrecoverableKeyException) {
                throw e; // a wrong PIN: do not send it again
            }
            Smartcard.finalizeDLL(); // ends the sessions of all tokens of the module
            store.load(null, pin);
        }
    }

    static KeyStore.Builder builder(SmartcardProvider provider, CallbackHandler handler) {
        return KeyStore.Builder.newInstance("Smartcard", provider, new KeyStore.CallbackHandlerProtection(handler));
    }
}
