<?php
require __DIR__ . '/includes/mail.php';
if ($_SERVER['REQUEST_METHOD'] === 'POST') {
    send_message($_POST['name'] ?? '', $_POST['text'] ?? '');
    header('Location: /index.html');
    exit;
}
?>
<form method="post"><input name="name"><textarea name="text"></textarea><button>Send</button></form>
