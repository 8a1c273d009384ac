<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>ConfigKey</name>
    <message>
        <source>the account at the upload server that this node belongs to</source>
        <translation>das Konto beim Upload-Server, zu dem dieser Knoten gehört</translation>
    </message>
    <message>
        <source>this node&apos;s id at the server</source>
        <translation>die Kennung dieses Knotens beim Server</translation>
    </message>
    <message>
        <source>id of the node&apos;s key pair at the server</source>
        <translation>Kennung des Schlüsselpaars dieses Knotens beim Server</translation>
    </message>
    <message>
        <source>the node&apos;s public key</source>
        <translation>der öffentliche Schlüssel des Knotens</translation>
    </message>
    <message>
        <source>file extensions that are never uploaded</source>
        <translation>Dateiendungen, die nie hochgeladen werden</translation>
    </message>
    <message>
        <source>file extensions that the server accepts</source>
        <translation>Dateiendungen, die der Server annimmt</translation>
    </message>
    <message>
        <source>incoming folder: files dropped here are uploaded</source>
        <translation>Eingangsordner: hier abgelegte Dateien werden hochgeladen</translation>
    </message>
    <message>
        <source>outgoing folder</source>
        <translation>Ausgangsordner</translation>
    </message>
    <message>
        <source>backup of uploaded items: 0 off, 4294967295 kept for ever, else seconds until they expire</source>
        <translation>Sicherung hochgeladener Dateien: 0 aus, 4294967295 für immer behalten, sonst Sekunden bis zum Löschen</translation>
    </message>
    <message>
        <source>backup folder (rejected files go to its .rejected)</source>
        <translation>Sicherungsordner (abgewiesene Dateien kommen in seinen Unterordner .rejected)</translation>
    </message>
    <message>
        <source>trace logging of the service</source>
        <translation>ausführliches Protokoll des Dienstes</translation>
    </message>
    <message>
        <source>whether remote clients may configure the service</source>
        <translation>ob entfernte Clients den Dienst einrichten dürfen</translation>
    </message>
    <message>
        <source>zip an upload from 10 plus this many files on (-7: from 3 files, 15: from 25)</source>
        <translation>einen Upload ab 10 plus so vielen Dateien zippen (-7: ab 3 Dateien, 15: ab 25)</translation>
    </message>
    <message>
        <source>use a dropped folder&apos;s name as the title of its upload</source>
        <translation>den Namen eines abgelegten Ordners als Titel seines Uploads verwenden</translation>
    </message>
    <message>
        <source>the most uploads that run at once</source>
        <translation>die größte Zahl gleichzeitig laufender Uploads</translation>
    </message>
    <message>
        <source>TCP port between the client and the service</source>
        <translation>TCP-Port zwischen Client und Dienst</translation>
    </message>
    <message>
        <source>seconds a connection may stay idle</source>
        <translation>Sekunden, die eine Verbindung untätig bleiben darf</translation>
    </message>
    <message>
        <source>use IPv4 only between the client and the service</source>
        <translation>zwischen Client und Dienst nur IPv4 verwenden</translation>
    </message>
    <message>
        <source>debug tracing of the transfers to the server</source>
        <translation>Debug-Protokoll der Übertragungen zum Server</translation>
    </message>
    <message>
        <source>address of the upload server</source>
        <translation>Adresse des Upload-Servers</translation>
    </message>
    <message>
        <source>alternative address of the upload server</source>
        <translation>Ausweichadresse des Upload-Servers</translation>
    </message>
    <message>
        <source>reach the server through a proxy</source>
        <translation>den Server über einen Proxy erreichen</translation>
    </message>
    <message>
        <source>the proxy&apos;s address</source>
        <translation>die Adresse des Proxys</translation>
    </message>
    <message>
        <source>tunnel through the proxy</source>
        <translation>durch den Proxy tunneln</translation>
    </message>
    <message>
        <source>the proxy speaks SOCKS5 (else HTTP)</source>
        <translation>der Proxy spricht SOCKS5 (sonst HTTP)</translation>
    </message>
    <message>
        <source>skip the check of the server&apos;s certificate</source>
        <translation>das Zertifikat des Servers nicht prüfen</translation>
    </message>
    <message>
        <source>how to authenticate at the proxy</source>
        <translation>wie beim Proxy angemeldet wird</translation>
    </message>
    <message>
        <source>user name at the proxy</source>
        <translation>Benutzername beim Proxy</translation>
    </message>
    <message>
        <source>password at the proxy</source>
        <translation>Passwort beim Proxy</translation>
    </message>
    <message>
        <source>SMTP server for e-mail notices (none: no notices)</source>
        <translation>SMTP-Server für E-Mail-Hinweise (keiner: keine Hinweise)</translation>
    </message>
    <message>
        <source>user name at the SMTP server</source>
        <translation>Benutzername beim SMTP-Server</translation>
    </message>
    <message>
        <source>password at the SMTP server</source>
        <translation>Passwort beim SMTP-Server</translation>
    </message>
    <message>
        <source>require TLS with the SMTP server</source>
        <translation>TLS mit dem SMTP-Server verlangen</translation>
    </message>
    <message>
        <source>send an e-mail when an upload succeeds</source>
        <translation>eine E-Mail senden, wenn ein Upload gelingt</translation>
    </message>
    <message>
        <source>send an e-mail when an upload fails</source>
        <translation>eine E-Mail senden, wenn ein Upload scheitert</translation>
    </message>
    <message>
        <source>sender of the e-mail notices</source>
        <translation>Absender der E-Mail-Hinweise</translation>
    </message>
    <message>
        <source>recipient of the e-mail notices</source>
        <translation>Empfänger der E-Mail-Hinweise</translation>
    </message>
</context>
<context>
    <name>main</name>
    <message>
        <source>Hand files to the QXLite service and watch them upload</source>
        <translation>Dateien an den QXLite-Dienst übergeben und ihr Hochladen verfolgen</translation>
    </message>
    <message>
        <source>Print this help and exit</source>
        <translation>Diese Hilfe ausgeben und beenden</translation>
    </message>
    <message>
        <source>Print the version and exit</source>
        <translation>Die Version ausgeben und beenden</translation>
    </message>
    <message>
        <source>The service&apos;s port</source>
        <translation>Der Port des Dienstes</translation>
    </message>
    <message>
        <source>The secret token file</source>
        <translation>Die Datei mit dem geheimen Token</translation>
    </message>
    <message>
        <source>Folder of the service&apos;s runtime file (read without --port and --token-file)</source>
        <translation>Ordner der Laufzeitdatei des Dienstes (gelesen ohne --port und --token-file)</translation>
    </message>
    <message>
        <source>Files or folders to upload</source>
        <translation>Hochzuladende Dateien oder Ordner</translation>
    </message>
    <message>
        <source>--port: &quot;%1&quot; is not a port number from 1 to 65535</source>
        <translation>--port: „%1“ ist keine Portnummer von 1 bis 65535</translation>
    </message>
</context>
<context>
    <name>qxui::ConfigTestPage</name>
    <message>
        <source>Error</source>
        <translation>Fehler</translation>
    </message>
    <message>
        <source>Warning</source>
        <translation>Warnung</translation>
    </message>
    <message>
        <source>Passed</source>
        <translation>Bestanden</translation>
    </message>
    <message>
        <source>Detail</source>
        <translation>Detail</translation>
    </message>
    <message>
        <source>&amp;Test the configuration</source>
        <translation>Konfiguration &amp;testen</translation>
    </message>
    <message>
        <source>Have the service test the configuration in force</source>
        <translation>Den Dienst die geltende Konfiguration testen lassen</translation>
    </message>
    <message>
        <source>Results of the configuration test</source>
        <translation>Ergebnisse des Konfigurationstests</translation>
    </message>
    <message>
        <source>Outcome of the configuration test</source>
        <translation>Ausgang des Konfigurationstests</translation>
    </message>
    <message>
        <source>Testing…</source>
        <translation>Test läuft…</translation>
    </message>
    <message numerus="yes">
        <source>The test found %n error(s).</source>
        <translation>
            <numerusform>Der Test fand %n Fehler.</numerusform>
            <numerusform>Der Test fand %n Fehler.</numerusform>
        </translation>
    </message>
</context>
<context>
    <name>qxui::DropZone</name>
    <message>
        <source>C&amp;ancel drop</source>
        <translation>Übergabe abbre&amp;chen</translation>
    </message>
    <message>
        <source>Drop zone</source>
        <translation>Ablagefläche</translation>
    </message>
    <message>
        <source>Drop files or folders here to hand them to the service</source>
        <translation>Dateien oder Ordner hier ablegen, um sie dem Dienst zu übergeben</translation>
    </message>
    <message>
        <source>Drop files or folders here</source>
        <translation>Dateien oder Ordner hier ablegen</translation>
    </message>
    <message>
        <source>Outcome of the last drop</source>
        <translation>Ausgang der letzten Übergabe</translation>
    </message>
    <message>
        <source>Progress of the drop</source>
        <translation>Fortschritt der Übergabe</translation>
    </message>
    <message>
        <source>Sent, rate and time left</source>
        <translation>Gesendet, Rate und verbleibende Zeit</translation>
    </message>
    <message>
        <source>Cancel the drop on its way</source>
        <translation>Die laufende Übergabe abbrechen</translation>
    </message>
    <message>
        <source>%1 of %2</source>
        <translation>%1 von %2</translation>
    </message>
    <message>
        <source>, %1/s, %2:%3 left</source>
        <translation>, %1/s, noch %2:%3</translation>
    </message>
</context>
<context>
    <name>qxui::MainWindow</name>
    <message>
        <source>&amp;Pause</source>
        <translation>&amp;Anhalten</translation>
    </message>
    <message>
        <source>Pause and &amp;discard waiting…</source>
        <translation>Anhalten und Wartende &amp;verwerfen…</translation>
    </message>
    <message>
        <source>&amp;Resume</source>
        <translation>&amp;Fortsetzen</translation>
    </message>
    <message>
        <source>Ca&amp;ncel job…</source>
        <translation>Auftrag a&amp;bbrechen…</translation>
    </message>
    <message>
        <source>Retr&amp;y job</source>
        <translation>Auftrag &amp;wiederholen</translation>
    </message>
    <message>
        <source>Cancel job…</source>
        <translation>Auftrag abbrechen…</translation>
    </message>
    <message>
        <source>Retry job now</source>
        <translation>Auftrag jetzt wiederholen</translation>
    </message>
    <message>
        <source>QXLite uploads</source>
        <translation>QXLite-Uploads</translation>
    </message>
    <message>
        <source>Service state</source>
        <translation>Zustand des Dienstes</translation>
    </message>
    <message>
        <source>Pause the service</source>
        <translation>Den Dienst anhalten</translation>
    </message>
    <message>
        <source>Pause the service and discard the waiting items</source>
        <translation>Den Dienst anhalten und die wartenden Einträge verwerfen</translation>
    </message>
    <message>
        <source>Resume the service</source>
        <translation>Den Dienst fortsetzen</translation>
    </message>
    <message>
        <source>Add &amp;files…</source>
        <translation>&amp;Dateien hinzufügen…</translation>
    </message>
    <message>
        <source>Choose files to hand to the service</source>
        <translation>Dateien wählen, die dem Dienst übergeben werden</translation>
    </message>
    <message>
        <source>Add f&amp;older…</source>
        <translation>&amp;Ordner hinzufügen…</translation>
    </message>
    <message>
        <source>Choose a folder to hand to the service</source>
        <translation>Einen Ordner wählen, der dem Dienst übergeben wird</translation>
    </message>
    <message>
        <source>The service&apos;s answer</source>
        <translation>Die Antwort des Dienstes</translation>
    </message>
    <message>
        <source>Uploads</source>
        <translation>Uploads</translation>
    </message>
    <message>
        <source>Cancel the selected job</source>
        <translation>Den gewählten Auftrag abbrechen</translation>
    </message>
    <message>
        <source>Retry the selected job now</source>
        <translation>Den gewählten Auftrag jetzt wiederholen</translation>
    </message>
    <message>
        <source>Pages</source>
        <translation>Seiten</translation>
    </message>
    <message>
        <source>&amp;Uploads</source>
        <translation>&amp;Uploads</translation>
    </message>
    <message>
        <source>S&amp;ettings</source>
        <translation>&amp;Einstellungen</translation>
    </message>
    <message>
        <source>Configuration &amp;check</source>
        <translation>&amp;Konfigurationsprüfung</translation>
    </message>
    <message>
        <source>Connection to the service</source>
        <translation>Verbindung zum Dienst</translation>
    </message>
    <message>
        <source>Last notice</source>
        <translation>Letzte Meldung</translation>
    </message>
    <message>
        <source>Show or hide the window</source>
        <translation>Fenster zeigen oder verbergen</translation>
    </message>
    <message>
        <source>Pause</source>
        <translation>Anhalten</translation>
    </message>
    <message>
        <source>Resume</source>
        <translation>Fortsetzen</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>%1: %2</source>
        <translation>%1: %2</translation>
    </message>
    <message>
        <source>Paused: nothing new starts until you resume.</source>
        <translation>Angehalten: Nichts Neues beginnt, bis Sie fortsetzen.</translation>
    </message>
    <message>
        <source>Uploads held: %1</source>
        <translation>Uploads zurückgehalten: %1</translation>
    </message>
    <message>
        <source>Cancel the job?</source>
        <translation>Den Auftrag abbrechen?</translation>
    </message>
    <message>
        <source>The service stops &quot;%1&quot; and moves its files to the rejected folder. They are not uploaded.</source>
        <translation>Der Dienst stoppt „%1“ und verschiebt seine Dateien in den Ordner der abgewiesenen. Sie werden nicht hochgeladen.</translation>
    </message>
    <message>
        <source>cancelled job %1</source>
        <translation>Auftrag %1 abgebrochen</translation>
    </message>
    <message>
        <source>retrying job %1</source>
        <translation>Auftrag %1 wird wiederholt</translation>
    </message>
    <message>
        <source>Discard the waiting items?</source>
        <translation>Die wartenden Einträge verwerfen?</translation>
    </message>
    <message>
        <source>The service pauses, and the items waiting in its incoming folder move to the rejected folder. They are not uploaded.</source>
        <translation>Der Dienst hält an, und die in seinem Eingangsordner wartenden Einträge kommen in den Ordner der abgewiesenen. Sie werden nicht hochgeladen.</translation>
    </message>
    <message>
        <source>Files to upload</source>
        <translation>Hochzuladende Dateien</translation>
    </message>
    <message>
        <source>Folder to upload</source>
        <translation>Hochzuladender Ordner</translation>
    </message>
</context>
<context>
    <name>qxui::SettingsPage</name>
    <message>
        <source>Folders</source>
        <translation>Ordner</translation>
    </message>
    <message>
        <source>Server and proxy</source>
        <translation>Server und Proxy</translation>
    </message>
    <message>
        <source>Uploads</source>
        <translation>Uploads</translation>
    </message>
    <message>
        <source>Backup</source>
        <translation>Sicherung</translation>
    </message>
    <message>
        <source>E-mail notices</source>
        <translation>E-Mail-Benachrichtigungen</translation>
    </message>
    <message>
        <source>Advanced</source>
        <translation>Erweitert</translation>
    </message>
    <message>
        <source>Sa&amp;ve settings</source>
        <translation>Einstellungen &amp;speichern</translation>
    </message>
    <message>
        <source>Re&amp;load</source>
        <translation>&amp;Neu laden</translation>
    </message>
    <message>
        <source>Reload the configuration in force</source>
        <translation>Die geltende Konfiguration neu laden</translation>
    </message>
    <message>
        <source>Save the settings as the service&apos;s configuration</source>
        <translation>Die Einstellungen als Konfiguration des Dienstes speichern</translation>
    </message>
    <message>
        <source>Outcome of saving the settings</source>
        <translation>Ausgang des Speicherns</translation>
    </message>
    <message>
        <source>Configuration not saved: %1</source>
        <translation>Konfiguration nicht gespeichert: %1</translation>
    </message>
    <message>
        <source>Nothing changed.</source>
        <translation>Nichts geändert.</translation>
    </message>
    <message>
        <source>Settings form</source>
        <translation>Einstellungsformular</translation>
    </message>
</context>
<context>
    <name>qxui::UiSession</name>
    <message>
        <source>Looking for the service…</source>
        <translation>Suche den Dienst…</translation>
    </message>
    <message>
        <source>Connected to the service</source>
        <translation>Mit dem Dienst verbunden</translation>
    </message>
    <message>
        <source>the service refused it</source>
        <translation>der Dienst hat es abgelehnt</translation>
    </message>
    <message>
        <source>the service did not save the configuration</source>
        <translation>der Dienst hat die Konfiguration nicht gespeichert</translation>
    </message>
    <message numerus="yes">
        <source>nothing was dropped: %n problem(s)</source>
        <translation>
            <numerusform>nichts wurde übergeben: %n Problem</numerusform>
            <numerusform>nichts wurde übergeben: %n Probleme</numerusform>
        </translation>
    </message>
    <message>
        <source>&quot;%1&quot; holds nothing to drop (only empty files)</source>
        <translation>„%1“ enthält nichts zu übergeben (nur leere Dateien)</translation>
    </message>
    <message>
        <source>Drop cancelled</source>
        <translation>Übergabe abgebrochen</translation>
    </message>
    <message>
        <source>the drop failed</source>
        <translation>die Übergabe ist fehlgeschlagen</translation>
    </message>
    <message>
        <source>; not sent: %1</source>
        <translation>; nicht gesendet: %1</translation>
    </message>
    <message numerus="yes">
        <source>dropped &quot;%1&quot;: %n file(s), %2</source>
        <translation>
            <numerusform>„%1“ übergeben: %n Datei, %2</numerusform>
            <numerusform>„%1“ übergeben: %n Dateien, %2</numerusform>
        </translation>
    </message>
</context>
<context>
    <name>qxui::UploadsEvents</name>
    <message>
        <source>%1: %2</source>
        <translation>%1: %2</translation>
    </message>
    <message>
        <source>Upload rejected</source>
        <translation>Upload abgewiesen</translation>
    </message>
    <message>
        <source>Uploads held</source>
        <translation>Uploads zurückgehalten</translation>
    </message>
</context>
<context>
    <name>qxui::UploadsModel</name>
    <message>
        <source>Queued</source>
        <translation>Eingereiht</translation>
    </message>
    <message>
        <source>Uploading</source>
        <translation>Wird hochgeladen</translation>
    </message>
    <message>
        <source>Done</source>
        <translation>Fertig</translation>
    </message>
    <message>
        <source>Failed</source>
        <translation>Fehlgeschlagen</translation>
    </message>
    <message>
        <source>Rejected</source>
        <translation>Abgewiesen</translation>
    </message>
    <message>
        <source>Cancelled</source>
        <translation>Abgebrochen</translation>
    </message>
    <message>
        <source>Waiting</source>
        <translation>Wartet</translation>
    </message>
    <message>
        <source>%1%</source>
        <translation>%1 %</translation>
    </message>
    <message>
        <source>%1/s</source>
        <translation>%1/s</translation>
    </message>
    <message>
        <source>Title</source>
        <translation>Titel</translation>
    </message>
    <message>
        <source>State</source>
        <translation>Zustand</translation>
    </message>
    <message>
        <source>Size</source>
        <translation>Größe</translation>
    </message>
    <message>
        <source>Progress</source>
        <translation>Fortschritt</translation>
    </message>
    <message>
        <source>Rate</source>
        <translation>Rate</translation>
    </message>
    <message>
        <source>Attempts</source>
        <translation>Versuche</translation>
    </message>
    <message>
        <source>Next try</source>
        <translation>Nächster Versuch</translation>
    </message>
    <message>
        <source>Last error</source>
        <translation>Letzter Fehler</translation>
    </message>
</context>
</TS>
